// The soak's client processes, one behaviour each.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>

#include "tarnsocket/tarn_ipc.h"
#include "teskclient/session.h"
#include "tests/soak/soak.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::mutex mutex;
std::condition_variable changed;
bool silent_released = false;

// A callback object that counts what the daemon does to it and answers
// deliveries at once, after delay_ms, or (delay_ms < 0) only once the
// process is about to end. It holds no reference count of its own, so that
// retains and releases can be compared at the end.
struct CountingCallback {
  explicit CountingCallback(int delay) : delay_ms(delay) {}
  const int delay_ms;
  std::atomic<int> retains{0}, releases{0}, deliveries{0};

  Object object() { return Object{Invoke, this}; }
  bool WaitFor(const std::function<bool()>& done, int timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, milliseconds(timeout_ms), done);
  }

  static int32_t Invoke(void* context, uint32_t op, ObjectArg*, uint32_t) {
    auto* self = static_cast<CountingCallback*>(context);
    switch (op & OBJECT_OP_MASK) {
      case OBJECT_OP_RETAIN:
        ++self->retains;
        break;
      case OBJECT_OP_RELEASE:
        ++self->releases;
        break;
      case OBJECT_OP_METHOD:
        if (self->delay_ms < 0) {
          std::unique_lock<std::mutex> lock(mutex);
          changed.wait(lock, [] { return silent_released; });
        }
        std::this_thread::sleep_for(milliseconds(self->delay_ms > 0 ? self->delay_ms : 0));
        ++self->deliveries;
        break;
      default:
        return OBJECT_ERROR_INVALID;
    }
    std::lock_guard<std::mutex> lock(mutex);
    changed.notify_all();
    return OBJECT_OK;
  }
};

struct Tally {
  int started = 0, refused = 0, results = 0, unanswered = 0, reconnects = 0;
  int ended = 0;  // raw roles: connections the daemon ended
};

// One line per client: role started refused results unanswered reconnects
// ended retained released. One write of a short line to a file opened for
// appending: lines of concurrent clients do not mix.
void Report(const std::string& role, const RoleOptions& options, const Tally& t, int retained,
            int released) {
  char line[256];
  const int n =
      snprintf(line, sizeof line, "%s %d %d %d %d %d %d %d %d\n", role.c_str(), t.started,
               t.refused, t.results, t.unanswered, t.reconnects, t.ended, retained, released);
  const int fd = open(options.report_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd >= 0 && write(fd, line, static_cast<size_t>(n)) != n) perror("report");
  if (fd >= 0) close(fd);
}

// One client: its connection, one service object, and every callback it
// handed over (kept to the end, to compare retains with releases).
class Client {
 public:
  Client(const RoleOptions& options, uint32_t interface)
      : random(options.seed),
        options_(options),
        interface_(interface),
        deadline_(Clock::now() + milliseconds(static_cast<int64_t>(options.seconds * 1000))) {}
  ~Client() { Close(); }

  bool TimeLeft() const { return Clock::now() < deadline_; }
  // The service object, connecting (again) when there is none; waits a
  // little after a failure.
  bool Open() {
    if (!IsNullObject(service_)) return true;
    Close();
    if (teskclient::Connect(options_.socket_path, &root_) == 0 &&
        teskclient::OpenService(root_, interface_, &service_) == OBJECT_OK) {
      return true;
    }
    service_ = kNullObject;
    std::this_thread::sleep_for(milliseconds(50));
    return false;
  }
  // After a call failed in the transport: the daemon ended the connection.
  void Lost() {
    ++tally.reconnects;
    Close();
  }
  Object service() const { return service_; }
  CountingCallback& NewCallback(int delay_ms) {
    return *callbacks_.emplace_back(std::make_unique<CountingCallback>(delay_ms));
  }
  // Waits for the daemon to give back every callback while the connection
  // still stands, then reports and closes.
  int Finish(const std::string& role) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      silent_released = true;
      changed.notify_all();
    }
    int retained = 0, released = 0, unbalanced = 0;
    for (auto& c : callbacks_) {
      c->WaitFor([&c] { return c->retains == c->releases; }, 20000);
      retained += c->retains;
      released += c->releases;
      unbalanced += c->retains != c->releases;
    }
    Close();
    Report(role, options_, tally, retained, released);
    return unbalanced == 0 ? 0 : 1;
  }

  std::minstd_rand random;
  Tally tally;

 private:
  void Close() {
    if (!IsNullObject(service_)) ObjectRelease(service_);
    if (!IsNullObject(root_)) ObjectRelease(root_);
    service_ = root_ = kNullObject;
  }

  const RoleOptions& options_;
  const uint32_t interface_;
  const Clock::time_point deadline_;
  Object root_ = kNullObject;
  Object service_ = kNullObject;
  std::deque<std::unique_ptr<CountingCallback>> callbacks_;
};

teskclient::EncodedDiscoveryScan RandomDiscoveryScan(std::minstd_rand& random) {
  teskclient::DiscoveryScanPlan plan;
  plan.params.timeout = 2000;
  plan.params.mode = static_cast<uint32_t>(random() % 4);
  plan.params.band = static_cast<uint32_t>(random() % 3);
  plan.params.fallback_param = 2;
  plan.params.scan_flag = static_cast<uint8_t>(random() % 2);
  plan.params.cache_flag = static_cast<uint8_t>(random() % 2);
  if (random() % 3 == 0) plan.channels = {1, 6, 11, 36, 64, 149};
  if (random() % 4 == 0) plan.ssids = {{'h', 'o', 'm', 'e'}};
  if (random() % 4 == 0) plan.bssids = {{0x00, 0x0d, 0x58, 0xef, 0x88, 0x09}};
  teskclient::EncodedDiscoveryScan encoded;
  std::string error;
  teskclient::EncodeDiscoveryScan(plan, &encoded, &error);
  return encoded;
}

// Starts one scan with a fresh callback; *handle is null unless it started.
// `targets` 0: a ranging scan of 1 to 20 targets.
int32_t StartScan(Client& client, uint32_t interface, int delay_ms, size_t targets,
                  CountingCallback** callback, Object* handle) {
  *callback = &client.NewCallback(delay_ms);
  *handle = kNullObject;
  const int32_t result =
      interface == kInterfaceDiscoveryScan
          ? teskclient::StartDiscoveryScan(client.service(), RandomDiscoveryScan(client.random),
                                           (*callback)->object(), handle)
          : teskclient::StartRangingScan(
                client.service(),
                RangingScan(targets != 0 ? targets : 1 + client.random() % 20,
                            targets == 0 && client.random() % 3 == 0),
                (*callback)->object(), handle);
  if (result == OBJECT_OK) ++client.tally.started;
  if (result == OBJECT_ERROR_NOT_STARTED) ++client.tally.refused;
  if (result < 0) client.Lost();
  return result;
}

struct ScanRole {
  uint32_t interface;
  std::function<int(std::minstd_rand&)> delay_ms;  // < 0: silent
  bool wait;                                       // for the delivery; else release after a moment
  size_t targets;                                  // of a ranging scan; 0: a few
  bool reconnect;                                  // a new connection for every scan
};

// Scans one after the other, each waited for (or not) and then released.
int ScanLoop(const std::string& role, const RoleOptions& options, const ScanRole& how) {
  Client client(options, how.interface);
  while (client.TimeLeft()) {
    if (!client.Open()) continue;
    const int delay = how.delay_ms(client.random);
    CountingCallback* callback = nullptr;
    Object handle;
    if (StartScan(client, how.interface, delay, how.targets, &callback, &handle) == OBJECT_OK) {
      if (!how.wait) {
        // A client that changes its mind, not a flood: a few scans a second.
        std::this_thread::sleep_for(milliseconds(client.random() % 300));
      } else if (callback->WaitFor([callback] { return callback->deliveries > 0; },
                                   (how.targets > 1000 ? 30000 : 3000) + std::max(delay, 0))) {
        ++client.tally.results;
      } else {
        ++client.tally.unanswered;
      }
      ObjectRelease(handle);
    }
    if (how.reconnect) client.Lost();
  }
  return client.Finish(role);
}

// Registers a fresh callback for disconnect events: the monitor's answer,
// and the token in *token.
int32_t Register(Client& client, Object* token) {
  ObjectArg args[2];
  args[0].o = client.NewCallback(0).object();
  args[1].o = kNullObject;
  const Object monitor = client.service();
  const int32_t result =
      monitor.invoke(monitor.context, OBJECT_OP_METHOD, args, kDeauthRegisterCounts);
  *token = args[1].o;
  return result;
}

int Deauth(const RoleOptions& options) {
  Client client(options, kInterfaceDeauthMonitor);
  while (client.TimeLeft()) {
    if (!client.Open()) continue;
    Object token;
    const int32_t result = Register(client, &token);
    if (result < 0) {
      client.Lost();
      continue;
    }
    ++client.tally.started;
    std::this_thread::sleep_for(milliseconds(client.random() % 200));
    // The registration ends with the token; the daemon then lets go of the
    // callback, which Finish sees as balance.
    if (result == OBJECT_OK) ObjectRelease(token);
  }
  return client.Finish("deauth");
}

// Dies in the middle of scans or of a registration loop.
int KillMid(const RoleOptions& options, uint32_t interface) {
  Client client(options, interface);
  if (!client.Open()) return 0;
  if (interface == kInterfaceDeauthMonitor) {
    std::thread([&client] {
      for (Object token;;) {
        if (Register(client, &token) == OBJECT_OK) ObjectRelease(token);
      }
    }).detach();
  }
  for (int i = interface == kInterfaceDeauthMonitor ? 0 : 1 + int(client.random() % 4); i > 0;
       --i) {
    CountingCallback* callback = nullptr;
    Object handle;
    StartScan(client, interface, 0, 0, &callback, &handle);
  }
  std::this_thread::sleep_for(std::chrono::microseconds(client.random() % 50001));
  kill(getpid(), SIGKILL);
  for (;;) pause();
}

// Starts a ranging scan whose result (about 500 KB) overfills the socket,
// and never reads it.
int Deaf(const RoleOptions& options) {
  Tally tally;
  const int fd = RawConnect(options.socket_path);
  const uint32_t service = fd >= 0 ? RawOpenService(fd, kInterfaceRangingScan) : 0;
  const teskclient::EncodedRangingScan request = RangingScan(2000, false);
  if (service != 0 &&
      SendAll(fd, InvokeFrame(2, service, request.op, {request.targets, request.ts}, 1, 1))) {
    ++tally.started;
  }
  std::this_thread::sleep_for(
      milliseconds(static_cast<int64_t>(std::min(options.seconds, 8.0) * 1000)));
  if (fd >= 0 && WaitForEnd(fd, milliseconds(0))) ++tally.ended;
  if (fd >= 0) close(fd);
  Report("deaf", options, tally, 0, 0);
  return 0;
}

// Every malformed frame on a connection of its own: each must end it (the
// report's "ended" falls short of "started" otherwise).
int Malformed(const RoleOptions& options) {
  Tally tally;
  for (const Bytes& frame : MalformedFrames()) {
    const int fd = RawConnect(options.socket_path);
    if (fd < 0) continue;
    ++tally.started;
    if (SendAll(fd, frame) && WaitForEnd(fd, milliseconds(10000))) ++tally.ended;
    close(fd);
  }
  Report("malformed", options, tally, 0, 0);
  return tally.ended == tally.started ? 0 : 1;
}

}  // namespace

teskclient::EncodedRangingScan RangingScan(size_t targets, bool periodic) {
  teskclient::RangingScanPlan plan;
  plan.periodic = periodic;
  plan.ts = 1;
  plan.targets.resize(targets);
  for (size_t i = 0; i < targets; ++i) {
    plan.targets[i].mac = {0x02,      0x00, uint8_t(i >> 24), uint8_t(i >> 16), uint8_t(i >> 8),
                           uint8_t(i)};
  }
  return teskclient::EncodeRangingScan(plan);
}

const std::vector<std::string>& RoleNames() {
  static const std::vector<std::string> names = {
      "scan", "range", "early",  "deauth",        "kill-scan", "slow",
      "scan", "range", "silent", "kill-register", "deaf",      "malformed"};
  return names;
}

int RunRole(const std::string& name, const RoleOptions& options) {
  using R = std::minstd_rand;
  const uint32_t discovery = kInterfaceDiscoveryScan, ranging = kInterfaceRangingScan;
  const std::map<std::string, ScanRole> scans = {
      {"scan", {discovery, [](R&) { return 0; }, true, 0, false}},
      {"range", {ranging, [](R&) { return 0; }, true, 0, false}},
      {"early", {options.seed % 2 ? discovery : ranging, [](R&) { return 0; }, false, 0, false}},
      {"slow",
       {discovery, [](R& r) { return 1500 + static_cast<int>(r() % 2500); }, true, 0, false}},
      {"late", {discovery, [](R&) { return 3500; }, true, 0, false}},
      {"silent", {discovery, [](R&) { return -1; }, true, 0, false}},
      // Megabytes of request and tens of megabytes of result each time.
      {"huge-range", {ranging, [](R&) { return 0; }, true, 100000, false}},
      // Each connection leaves one silent callback behind: what a client
      // gets away with when only a connection's record counts against it.
      {"fickle", {discovery, [](R&) { return -1; }, false, 0, true}},
  };
  if (const auto it = scans.find(name); it != scans.end())
    return ScanLoop(name, options, it->second);
  if (name == "deauth") return Deauth(options);
  if (name == "kill-scan") return KillMid(options, options.seed % 2 ? ranging : discovery);
  if (name == "kill-register") return KillMid(options, kInterfaceDeauthMonitor);
  if (name == "deaf") return Deaf(options);
  if (name == "malformed") return Malformed(options);
  fprintf(stderr, "soak: unknown role %s\n", name.c_str());
  return 64;
}

}  // namespace tesk_soak
