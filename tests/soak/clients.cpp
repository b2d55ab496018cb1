// The soak's client processes, one behaviour each.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "frame.h"
#include "teskclient/request_encoding.h"
#include "teskclient/session.h"
#include "tests/soak/soak.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Bytes = std::vector<uint8_t>;

volatile sig_atomic_t stopped = 0;  // SIGTERM: wind up now
Clock::time_point deadline;         // of this process's role
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

  bool WaitFor(const std::function<bool()>& done, int timeout_ms) {
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, milliseconds(timeout_ms), done);
  }
  static int32_t Invoke(void* context, uint32_t op, ObjectArg*, uint32_t) {
    auto* self = static_cast<CountingCallback*>(context);
    op &= OBJECT_OP_MASK;
    if (op == OBJECT_OP_METHOD && self->delay_ms < 0) {
      std::unique_lock<std::mutex> lock(mutex);
      changed.wait(lock, [] { return silent_released; });
    }
    if (op == OBJECT_OP_METHOD)
      std::this_thread::sleep_for(milliseconds(std::max(self->delay_ms, 0)));
    std::atomic<int>& count = op == OBJECT_OP_RETAIN    ? self->retains
                              : op == OBJECT_OP_RELEASE ? self->releases
                                                        : self->deliveries;
    ++count;
    std::lock_guard<std::mutex> lock(mutex);
    changed.notify_all();
    return OBJECT_OK;
  }
};

// One report line per client: role started refused results unanswered
// reconnects ended retained released (ended: connections the daemon
// ended). One short line, written at once to a file opened for appending:
// lines of concurrent clients do not mix.
struct Tally {
  int started = 0, refused = 0, results = 0, unanswered = 0, reconnects = 0, ended = 0;
  void Report(const std::string& role, const std::string& path, int retained, int released) const {
    std::ofstream(path, std::ios::app)
        << role << ' ' << started << ' ' << refused << ' ' << results << ' ' << unanswered << ' '
        << reconnects << ' ' << ended << ' ' << retained << ' ' << released << '\n';
  }
};

bool TimeLeft() {
  return stopped == 0 && Clock::now() < deadline;
}

// One client: its connection, one service object, and every callback it
// handed over (kept to the end, to compare retains with releases).
struct Client {
  Client(const RoleOptions& o, uint32_t id) : random(o.seed), options(o), interface_id(id) {}
  ~Client() { Lost(false); }

  // The service object, connecting (again) when there is none; waits a
  // little after a failure.
  bool Open() {
    if (!IsNullObject(service)) return true;
    Lost(false);
    if (teskclient::Connect(options.socket_path, &root) == 0 &&
        teskclient::OpenService(root, interface_id, &service) == OBJECT_OK) {
      return true;
    }
    std::this_thread::sleep_for(milliseconds(50));
    return false;
  }
  // reconnect: after a call failed in the transport, the daemon ended it.
  void Lost(bool reconnect = true) {
    tally.reconnects += reconnect;
    if (!IsNullObject(service)) ObjectRelease(service);
    if (!IsNullObject(root)) ObjectRelease(root);
    service = root = kNullObject;
  }
  Object NewCallback(int delay_ms) {
    callbacks.push_back(std::make_unique<CountingCallback>(delay_ms));
    return Object{CountingCallback::Invoke, callbacks.back().get()};
  }
  // Lets silent callbacks answer, waits for the daemon to give back every
  // callback while the connection still stands, then reports and closes.
  int Finish(const std::string& role) {
    {
      std::lock_guard<std::mutex> lock(mutex);
      silent_released = true;
      changed.notify_all();
    }
    int retained = 0, released = 0;
    for (auto& c : callbacks) {
      c->WaitFor([&c] { return c->retains == c->releases; }, 20000);
      retained += c->retains;
      released += c->releases;
    }
    Lost(false);
    tally.Report(role, options.report_path, retained, released);
    return retained == released ? 0 : 1;
  }

  std::minstd_rand random;
  Tally tally;
  const RoleOptions& options;
  const uint32_t interface_id;
  Object root = kNullObject, service = kNullObject;
  std::deque<std::unique_ptr<CountingCallback>> callbacks;
};

teskclient::EncodedRangingScan RangingScan(size_t targets, bool periodic) {
  teskclient::RangingScanPlan plan;
  plan.periodic = periodic;
  plan.ts = 1;
  plan.targets.resize(targets);
  for (size_t i = 0; i < targets; ++i) {
    plan.targets[i].mac = {2, 0, uint8_t(i >> 24), uint8_t(i >> 16), uint8_t(i >> 8), uint8_t(i)};
  }
  return teskclient::EncodeRangingScan(plan);
}

// Starts one scan with a fresh callback, discovery or ranging of `targets`
// (0: 1 to 20), with random parameters, or registers the callback for
// disconnect events; *handle is the scan's handle or the token.
int32_t StartScan(Client& client, int delay_ms, size_t targets, Object* handle) {
  const Object callback = client.NewCallback(delay_ms);
  int32_t result;
  if (client.interface_id == kInterfaceDeauthMonitor) {
    result = teskclient::WatchDisconnects(client.service, callback, handle);
  } else if (client.interface_id == kInterfaceDiscoveryScan) {
    teskclient::DiscoveryScanPlan plan;
    std::minstd_rand& r = client.random;
    // Mode 3 is unknown: refused.
    plan.params = {2000, 0, uint32_t(r() % 4), 0, 2, uint32_t(r() % 3), uint8_t(r() % 2), 1, {}};
    if (r() % 3 == 0) plan.channels = {1, 6, 11, 36, 64, 149};
    if (r() % 4 == 0) plan.ssids = {{'h', 'o', 'm', 'e'}};
    teskclient::EncodedDiscoveryScan encoded;
    std::string error;
    teskclient::EncodeDiscoveryScan(plan, &encoded, &error);
    result = teskclient::StartDiscoveryScan(client.service, encoded, callback, handle);
  } else {
    const bool some = targets == 0;
    result = teskclient::StartRangingScan(
        client.service,
        RangingScan(some ? 1 + client.random() % 20 : targets, some && client.random() % 3 == 0),
        callback, handle);
  }
  if (result == OBJECT_OK) ++client.tally.started;
  if (result == OBJECT_ERROR_NOT_STARTED) ++client.tally.refused;
  if (result < 0) client.Lost();
  return result;
}

struct ScanRole {
  uint32_t interface_id;
  int delay_ms;    // of the callback; < 0: silent; > 10000: 1.5 to 4 s at random
  bool wait;       // for the delivery; else release after a moment
  size_t targets;  // of a ranging scan; 0: a few
};

// Scans one after the other, each waited for (or not) and then released.
int ScanLoop(const std::string& role, const RoleOptions& options, const ScanRole& how) {
  Client client(options, how.interface_id);
  while (TimeLeft()) {
    if (!client.Open()) continue;
    const int delay = how.delay_ms > 10000 ? 1500 + int(client.random() % 2500) : how.delay_ms;
    Object handle;
    if (StartScan(client, delay, how.targets, &handle) == OBJECT_OK) {
      CountingCallback& callback = *client.callbacks.back();
      if (!how.wait) {
        // A client that changes its mind, not a flood: a few scans a second.
        std::this_thread::sleep_for(milliseconds(client.random() % 300));
      } else if (callback.WaitFor([&callback] { return callback.deliveries > 0; },
                                  (how.targets > 1000 ? 30000 : 3000) + std::max(delay, 0))) {
        ++client.tally.results;
      } else {
        ++client.tally.unanswered;
      }
      ObjectRelease(handle);
    }
  }
  return client.Finish(role);
}

int RawConnect(const std::string& socket_path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{AF_UNIX, {}};
  socket_path.copy(addr.sun_path, sizeof addr.sun_path - 1);
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  if (fd >= 0) close(fd);
  return -1;
}

// An invoke frame carrying `buffers`, and our export 1 when `callback`.
Bytes InvokeFrame(uint32_t handle, uint32_t op, const std::vector<Bytes>& buffers, bool callback) {
  uint64_t sizes[tarnsocket::kMaxSlots];
  for (size_t i = 0; i < buffers.size(); ++i) sizes[i] = buffers[i].size();
  const tarnsocket::ObjectRef ref{tarnsocket::kRefSenderExport, 1};
  Bytes frame(tarnsocket::kMaxHeadSize);
  frame.resize(tarnsocket::EncodeInvokeHead(frame.data(), 1, handle, op,
                                            OBJECT_COUNTS(unsigned(buffers.size()), 0, callback, 1),
                                            sizes, &ref, 1));
  for (const Bytes& buffer : buffers) frame.insert(frame.end(), buffer.begin(), buffer.end());
  return frame;
}

bool SendAll(int fd, const Bytes& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

// True once the peer ended the connection within `timeout`; anything it
// sends meanwhile is dropped.
bool WaitForEnd(int fd, milliseconds timeout) {
  const auto until = Clock::now() + timeout;
  do {
    pollfd p{fd, POLLIN, 0};
    uint8_t sink[4096];
    const ssize_t n = poll(&p, 1, 10) > 0 ? recv(fd, sink, sizeof sink, MSG_DONTWAIT) : 1;
    if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) return true;
  } while (Clock::now() < until);
  return false;
}

// Starts a ranging scan whose result (about 500 KB) overfills the socket,
// and never reads it.
int Deaf(const RoleOptions& options, Tally& tally) {
  const int fd = RawConnect(options.socket_path);
  if (fd < 0) return 0;
  tarnsocket::FrameHeader reply{};
  tarnsocket::ObjectRef service{};
  const teskclient::EncodedRangingScan request = RangingScan(2000, false);
  if (SendAll(fd, InvokeFrame(0, OBJECT_OP_METHOD, {{kInterfaceRangingScan, 0, 0, 0}}, false)) &&
      recv(fd, &reply, sizeof reply, MSG_WAITALL) == sizeof reply && reply.code == OBJECT_OK &&
      recv(fd, &service, sizeof service, MSG_WAITALL) == sizeof service &&
      SendAll(fd, InvokeFrame(service.handle, request.op, {request.targets, request.ts}, true))) {
    ++tally.started;
  }
  // Whether the daemon ended the connection, without reading a byte.
  auto ended = [fd] {
    pollfd p{fd, POLLRDHUP, 0};
    return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
  };
  while (TimeLeft() && !ended()) std::this_thread::sleep_for(milliseconds(100));
  tally.ended = ended();
  close(fd);
  return 0;
}

// Connections that each send a valid frame one byte a second; when the
// daemon ends one (its frame is overdue), another takes its place at once,
// so that a thousand are connected all along.
int SlowSenders(const RoleOptions& options, Tally& tally) {
  const Bytes frame = InvokeFrame(0, OBJECT_OP_METHOD, {{1, 0, 0, 0}}, false);
  std::vector<pollfd> senders(1000, pollfd{-1, POLLRDHUP, 0});
  std::vector<size_t> sent(senders.size(), 0);
  auto replace = [&](size_t i) {
    if (senders[i].fd >= 0) {
      close(senders[i].fd);
      ++tally.ended;
    }
    senders[i].fd = RawConnect(options.socket_path);
    tally.started += senders[i].fd >= 0;
    sent[i] = 0;
  };
  for (auto next = Clock::now(); TimeLeft(); next += milliseconds(1000)) {
    for (size_t i = 0; i < senders.size(); ++i) {
      if (senders[i].fd < 0 || (send(senders[i].fd, &frame[sent[i]++ % frame.size()], 1,
                                     MSG_NOSIGNAL | MSG_DONTWAIT) < 0 &&
                                errno != EAGAIN)) {
        replace(i);
      }
    }
    for (auto now = Clock::now(); TimeLeft() && now < next; now = Clock::now()) {
      const auto wait = std::chrono::duration_cast<milliseconds>(next - now).count();
      if (poll(senders.data(), senders.size(), static_cast<int>(wait) + 1) <= 0) continue;
      for (size_t i = 0; i < senders.size(); ++i) {
        if ((senders[i].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) replace(i);
      }
    }
  }
  for (const pollfd& p : senders) {
    if (p.fd >= 0) close(p.fd);
  }
  return 0;
}

// Keeps sending root calls of just under 16 MiB, the most a call may carry
// (the root refuses them for their size, after the library has read them
// whole).
int Pinner(const RoleOptions& options, Tally& tally) {
  const Bytes frame = InvokeFrame(0, OBJECT_OP_METHOD, {Bytes((16u << 20) - 64, 0x5a)}, false);
  for (int fd = -1; TimeLeft();) {
    if (fd < 0) fd = RawConnect(options.socket_path);
    tarnsocket::FrameHeader reply{};
    if (fd >= 0 && SendAll(fd, frame) &&
        recv(fd, &reply, sizeof reply, MSG_WAITALL) == sizeof reply) {
      ++tally.started;
      if (!WaitForEnd(fd, milliseconds(100))) continue;  // drops the answer's body
    }
    if (fd >= 0) close(fd);
    fd = -1;
    ++tally.ended;
    std::this_thread::sleep_for(milliseconds(100));
  }
  return 0;
}

// Connections that each open with a frame broken in one of several ways,
// which the daemon must end (and only them). Fails if one stays open.
int Malformed(const RoleOptions& options, Tally& tally) {
  std::minstd_rand random(options.seed);
  const Bytes good = InvokeFrame(0, OBJECT_OP_METHOD, {{1, 0, 0, 0}}, false);
  const std::vector<std::function<void(tarnsocket::FrameHeader&)>> breaks = {
      [](auto& h) { h.type = 0x7f; },             // unknown frame type
      [](auto& h) { h.reserved[1] = 1; },         // reserved field set
      [](auto& h) { h.handle = 0x5eed; },         // call of an unknown handle
      [](auto& h) { h.body_size = 0xfffffff0; },  // frame too large
      [](auto& h) { h.body_size -= 1; },          // sizes do not add up
  };
  while (TimeLeft()) {
    Bytes frame = good;
    tarnsocket::FrameHeader header;
    memcpy(&header, frame.data(), sizeof header);
    breaks[random() % breaks.size()](header);
    memcpy(frame.data(), &header, sizeof header);
    const int fd = RawConnect(options.socket_path);
    if (fd < 0) continue;
    ++tally.started;
    // Only the header for an oversized frame: the daemon must not wait for more.
    if (header.body_size > good.size()) frame.resize(sizeof header);
    SendAll(fd, frame);  // may fail once the daemon has seen enough
    const bool ended = WaitForEnd(fd, milliseconds(5000));
    tally.ended += ended;
    tally.unanswered += !ended;
    close(fd);
    std::this_thread::sleep_for(milliseconds(20));
  }
  return tally.unanswered == 0 ? 0 : 1;
}

}  // namespace

int RunRole(const std::string& name, const RoleOptions& options) {
  signal(SIGTERM, [](int) { stopped = 1; });
  deadline = Clock::now() + milliseconds(static_cast<int64_t>(options.seconds * 1000));
  const uint32_t discovery = kInterfaceDiscoveryScan, ranging = kInterfaceRangingScan;
  const std::map<std::string, ScanRole> scans = {
      {"scan", {discovery, 0, true, 0}},
      {"range", {ranging, 0, true, 0}},
      {"early", {options.seed % 2 ? discovery : ranging, 0, false, 0}},
      {"slow", {discovery, 10001, true, 0}},
      {"late", {discovery, 3500, true, 0}},
      {"silent", {discovery, -1, true, 0}},
      // Megabytes of request and tens of megabytes of result each time.
      {"huge-range", {ranging, 0, true, 100000}},
      // Registrations held for a moment each; the daemon then lets go of
      // the callback, which Finish sees as balance.
      {"deauth", {kInterfaceDeauthMonitor, 0, false, 0}},
  };
  if (const auto it = scans.find(name); it != scans.end())
    return ScanLoop(name, options, it->second);
  const std::map<std::string, int (*)(const RoleOptions&, Tally&)> raw = {
      {"deaf", Deaf}, {"slow-senders", SlowSenders}, {"pinner", Pinner}, {"malformed", Malformed}};
  const auto it = raw.find(name);
  if (it == raw.end()) return 64;
  Tally tally;
  const int fault = it->second(options, tally);
  tally.Report(name, options.report_path, 0, 0);
  return fault;
}

}  // namespace tesk_soak
