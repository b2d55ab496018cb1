#include "tests/soak/client_roles.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include "tarnsocket/tarn_ipc.h"
#include "teskclient/session.h"
#include "tests/soak/counting_callback.h"
#include "tests/soak/raw_peer.h"
#include "tests/soak/scan_plans.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Tally {
  int started = 0;
  int refused = 0;  // the daemon answered 1: not started
  int results = 0;
  int unanswered = 0;  // no delivery in time (a dropped request, a slow service)
  int reconnects = 0;
  int connections_ended = 0;  // raw roles: the daemon ended the connection
};

// One client: its connection, one service object, and every callback it
// handed over (kept to the end, to compare retains with releases).
class Client {
 public:
  Client(const RoleOptions& options, uint32_t interface)
      : options_(options),
        interface_(interface),
        random_(options.seed),
        deadline_(Clock::now() + milliseconds(static_cast<int64_t>(options.seconds * 1000))) {}
  ~Client() { Close(); }

  bool TimeLeft() const { return Clock::now() < deadline_; }
  std::minstd_rand& random() { return random_; }
  Tally& tally() { return tally_; }

  // The service object, connecting (again) when there is none.
  bool Open() {
    if (!IsNullObject(service_)) return true;
    Close();
    if (teskclient::Connect(options_.socket_path, &root_) != 0) return false;
    if (teskclient::OpenService(root_, interface_, &service_) != OBJECT_OK) {
      service_ = kNullObject;
      return false;
    }
    return true;
  }
  // After a call failed in the transport: the daemon ended the connection.
  void Lost() {
    ++tally_.reconnects;
    Close();
  }
  Object service() const { return service_; }

  CountingCallback& NewCallback(int delay_ms) {
    callbacks_.push_back(std::make_unique<CountingCallback>(delay_ms));
    return *callbacks_.back();
  }

  // Waits for the daemon to give back every callback while the connection
  // still stands, then reports and closes.
  int Finish(const std::string& role) {
    CountingCallback::ReleaseSilent();
    int retained = 0, released = 0, unbalanced = 0;
    for (auto& callback : callbacks_) {
      callback->WaitForBalance(milliseconds(20000));
      retained += callback->retains();
      released += callback->releases();
      if (callback->retains() != callback->releases()) ++unbalanced;
    }
    Close();
    Report(role, tally_, retained, released);
    return unbalanced == 0 ? 0 : 1;
  }

  void Report(const std::string& role, const Tally& t, int retained, int released) const {
    char line[256];
    const int n = snprintf(line, sizeof line,
                           "role=%s started=%d refused=%d results=%d unanswered=%d "
                           "reconnects=%d ended=%d retained=%d released=%d\n",
                           role.c_str(), t.started, t.refused, t.results, t.unanswered,
                           t.reconnects, t.connections_ended, retained, released);
    const int fd =
        open(options_.report_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) {
      // One write of a short line to a file opened for appending: lines of
      // concurrent clients do not mix.
      if (write(fd, line, static_cast<size_t>(n)) != n) perror("report");
      close(fd);
    }
  }

 private:
  void Close() {
    if (!IsNullObject(service_)) ObjectRelease(service_);
    if (!IsNullObject(root_)) ObjectRelease(root_);
    service_ = root_ = kNullObject;
  }

  const RoleOptions& options_;
  const uint32_t interface_;
  std::minstd_rand random_;
  const Clock::time_point deadline_;
  Object root_ = kNullObject;
  Object service_ = kNullObject;
  std::deque<std::unique_ptr<CountingCallback>> callbacks_;
  Tally tally_;
};

// Starts one scan with a fresh callback; *handle is null unless it started.
int32_t StartScan(Client& client, uint32_t interface, int delay_ms, CountingCallback** callback,
                  Object* handle) {
  *callback = &client.NewCallback(delay_ms);
  *handle = kNullObject;
  int32_t result;
  if (interface == kInterfaceDiscoveryScan) {
    result = teskclient::StartDiscoveryScan(client.service(), RandomDiscoveryScan(client.random()),
                                            (*callback)->object(), handle);
  } else {
    const size_t targets = 1 + client.random()() % 20;
    result = teskclient::StartRangingScan(client.service(),
                                          RangingScan(targets, client.random()() % 3 == 0),
                                          (*callback)->object(), handle);
  }
  if (result == OBJECT_OK) {
    ++client.tally().started;
  } else if (result == OBJECT_ERROR_NOT_STARTED) {
    ++client.tally().refused;
  } else if (result < 0) {
    client.Lost();
  }
  return result;
}

// Scans one after the other, each waited for (or not) and then released.
int ScanLoop(const std::string& role, const RoleOptions& options, uint32_t interface,
             std::function<int(std::minstd_rand&)> delay_ms, bool wait) {
  Client client(options, interface);
  while (client.TimeLeft()) {
    if (!client.Open()) {
      std::this_thread::sleep_for(milliseconds(50));
      continue;
    }
    const int delay = delay_ms(client.random());
    CountingCallback* callback = nullptr;
    Object handle;
    if (StartScan(client, interface, delay, &callback, &handle) != OBJECT_OK) continue;
    if (!wait) {
      // A client that changes its mind, not a flood: a few scans a second.
      std::this_thread::sleep_for(milliseconds(client.random()() % 300));
    } else {
      const int patience = 3000 + (delay > 0 ? delay : 0);
      if (callback->WaitForDelivery(milliseconds(patience))) {
        ++client.tally().results;
      } else {
        ++client.tally().unanswered;
      }
    }
    ObjectRelease(handle);
  }
  return client.Finish(role);
}

// Registers a fresh callback for disconnect events: the monitor's answer,
// and the token in *token when it is 0.
int32_t Register(Client& client, Object* token) {
  CountingCallback& callback = client.NewCallback(0);
  ObjectArg args[2];
  args[0].o = callback.object();
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
    if (!client.Open()) {
      std::this_thread::sleep_for(milliseconds(50));
      continue;
    }
    Object token;
    const int32_t result = Register(client, &token);
    if (result < 0) {
      client.Lost();
      continue;
    }
    ++client.tally().started;
    std::this_thread::sleep_for(milliseconds(client.random()() % 200));
    // The registration ends with the token; the daemon then lets go of the
    // callback, which Finish sees as balance.
    if (result == OBJECT_OK) ObjectRelease(token);
  }
  return client.Finish("deauth");
}

[[noreturn]] void KillSelfSoon(std::minstd_rand& random, int max_ms) {
  std::this_thread::sleep_for(std::chrono::microseconds(random() % (max_ms * 1000 + 1)));
  kill(getpid(), SIGKILL);
  for (;;) pause();
}

int KillMidScan(const RoleOptions& options) {
  const uint32_t interface =
      options.seed % 2 == 0 ? kInterfaceDiscoveryScan : kInterfaceRangingScan;
  Client client(options, interface);
  if (!client.Open()) return 0;
  const int scans = 1 + static_cast<int>(client.random()() % 4);
  for (int i = 0; i < scans; ++i) {
    CountingCallback* callback = nullptr;
    Object handle;
    StartScan(client, interface, 0, &callback, &handle);
  }
  KillSelfSoon(client.random(), 30);
}

int KillMidRegistration(const RoleOptions& options) {
  Client client(options, kInterfaceDeauthMonitor);
  if (!client.Open()) return 0;
  std::thread registering([&client] {
    for (;;) {
      Object token;
      if (Register(client, &token) == OBJECT_OK) ObjectRelease(token);
    }
  });
  registering.detach();
  KillSelfSoon(client.random(), 50);
}

// Starts a ranging scan whose result (about 500 KB) overfills the socket,
// and never reads it.
int Deaf(const RoleOptions& options) {
  Client client(options, 0);
  const int fd = RawConnect(options.socket_path);
  const uint32_t service = fd >= 0 ? RawOpenService(fd, kInterfaceRangingScan) : 0;
  if (service != 0 && RawStartRanging(fd, service, 2000)) ++client.tally().started;
  const double idle = options.seconds < 8 ? options.seconds : 8;
  std::this_thread::sleep_for(milliseconds(static_cast<int64_t>(idle * 1000)));
  if (fd >= 0 && WaitForEnd(fd, milliseconds(0))) ++client.tally().connections_ended;
  if (fd >= 0) close(fd);
  client.Report("deaf", client.tally(), 0, 0);
  return 0;
}

// Every malformed frame on a connection of its own: each must end it.
int Malformed(const RoleOptions& options) {
  Client client(options, 0);
  int failures = 0;
  for (const MalformedFrame& frame : MalformedFrames()) {
    const int fd = RawConnect(options.socket_path);
    if (fd < 0) continue;
    ++client.tally().started;
    if (SendAll(fd, frame.bytes) && WaitForEnd(fd, milliseconds(10000))) {
      ++client.tally().connections_ended;
    } else {
      // The report's "ended" falls short of "started"; the soak fails on it.
      ++failures;
    }
    close(fd);
  }
  client.Report("malformed", client.tally(), 0, 0);
  return failures == 0 ? 0 : 1;
}

// Ranging scans of 100,000 targets, one after the other: megabytes of
// request and tens of megabytes of result each time.
int HugeRanging(const RoleOptions& options) {
  Client client(options, kInterfaceRangingScan);
  const teskclient::EncodedRangingScan request = RangingScan(100000, false);
  while (client.TimeLeft()) {
    if (!client.Open()) {
      std::this_thread::sleep_for(milliseconds(50));
      continue;
    }
    CountingCallback& callback = client.NewCallback(0);
    Object handle = kNullObject;
    const int32_t result =
        teskclient::StartRangingScan(client.service(), request, callback.object(), &handle);
    if (result < 0) {
      client.Lost();
      continue;
    }
    if (result != OBJECT_OK) {
      ++client.tally().refused;
      continue;
    }
    ++client.tally().started;
    if (callback.WaitForDelivery(milliseconds(30000))) {
      ++client.tally().results;
    } else {
      ++client.tally().unanswered;
    }
    ObjectRelease(handle);
  }
  return client.Finish("huge-range");
}

// New connections one after the other, each leaving one silent callback
// behind: what a client gets away with when only a connection's record
// counts against it.
int Fickle(const RoleOptions& options) {
  Client client(options, kInterfaceDiscoveryScan);
  while (client.TimeLeft()) {
    CountingCallback* callback = nullptr;
    Object handle;
    if (client.Open() &&
        StartScan(client, kInterfaceDiscoveryScan, -1, &callback, &handle) == OBJECT_OK) {
      std::this_thread::sleep_for(milliseconds(300));
      ObjectRelease(handle);
    }
    client.Lost();
  }
  return client.Finish("fickle");
}

int NoDelay(std::minstd_rand&) {
  return 0;
}

}  // namespace

const std::vector<std::string>& RoleNames() {
  static const std::vector<std::string> names = {
      "scan", "range", "early",  "deauth",        "kill-scan", "slow",
      "scan", "range", "silent", "kill-register", "deaf",      "malformed"};
  return names;
}

int RunRole(const std::string& name, const RoleOptions& options) {
  if (name == "scan") return ScanLoop(name, options, kInterfaceDiscoveryScan, NoDelay, true);
  if (name == "range") return ScanLoop(name, options, kInterfaceRangingScan, NoDelay, true);
  if (name == "early") {
    return ScanLoop(name, options,
                    options.seed % 2 ? kInterfaceDiscoveryScan : kInterfaceRangingScan, NoDelay,
                    false);
  }
  if (name == "slow") {
    return ScanLoop(
        name, options, kInterfaceDiscoveryScan,
        [](std::minstd_rand& random) { return 1500 + static_cast<int>(random() % 2500); }, true);
  }
  if (name == "late") {
    return ScanLoop(
        name, options, kInterfaceDiscoveryScan, [](std::minstd_rand&) { return 3500; }, true);
  }
  if (name == "huge-range") return HugeRanging(options);
  if (name == "fickle") return Fickle(options);
  if (name == "silent") {
    return ScanLoop(
        name, options, kInterfaceDiscoveryScan, [](std::minstd_rand&) { return -1; }, true);
  }
  if (name == "deauth") return Deauth(options);
  if (name == "kill-scan") return KillMidScan(options);
  if (name == "kill-register") return KillMidRegistration(options);
  if (name == "deaf") return Deaf(options);
  if (name == "malformed") return Malformed(options);
  fprintf(stderr, "soak: unknown role %s\n", name.c_str());
  return 64;
}

}  // namespace tesk_soak
