#include "tests/soak/pressure_soak.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include <tesk/object.h>

#include "frame.h"
#include "tests/soak/raw_peer.h"
#include "tests/soak/soak_support.h"
#include "tests/support/temp_dir.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The IPC library's default wait for a callback's answer, which each new
// misbehaving client may cost the daemon's delivering thread once.
constexpr long kCallbackWaitMs = 200;

// Connections that each send a valid frame one byte a second. When the
// daemon ends one, another takes its place.
class SlowSenders {
 public:
  SlowSenders(const std::string& socket_path, int count)
      : path_(socket_path), frame_(InvokeFrame(1, 0, OBJECT_OP_METHOD, {{1, 0, 0, 0}}, 0, 1)) {
    for (int i = 0; i < count; ++i) senders_.push_back(Sender{RawConnect(path_), 0, Clock::now()});
    thread_ = std::thread([this] { Run(); });
  }
  ~SlowSenders() {
    stop_ = true;
    thread_.join();
    for (Sender& s : senders_) {
      if (s.fd >= 0) close(s.fd);
    }
  }
  int ended() const { return ended_; }
  int connected() const { return connected_; }

 private:
  struct Sender {
    int fd;
    size_t sent;
    Clock::time_point next;
  };

  void Run() {
    std::vector<int> order(senders_.size());
    while (!stop_) {
      int connected = 0;
      for (Sender& s : senders_) {
        const auto now = Clock::now();
        if (s.fd < 0 || now < s.next) {
          connected += s.fd >= 0;
          continue;
        }
        const ssize_t n =
            send(s.fd, &frame_[s.sent % frame_.size()], 1, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n == 1) {
          ++s.sent;
          s.next = now + milliseconds(1000);
          ++connected;
        } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
          close(s.fd);
          ++ended_;
          s = Sender{RawConnect(path_), 0, now};
        }
      }
      connected_ = connected;
      std::this_thread::sleep_for(milliseconds(10));
    }
  }

  const std::string path_;
  const Bytes frame_;
  std::vector<Sender> senders_;
  std::atomic<bool> stop_{false};
  std::atomic<int> ended_{0};
  std::atomic<int> connected_{0};
  std::thread thread_;
};

// Connections that each keep sending the root calls of just under 16 MiB,
// the most a call may carry (the root refuses them for their size, after the
// library has read them whole).
class MemoryPinners {
 public:
  MemoryPinners(const std::string& socket_path, int count)
      : frame_(InvokeFrame(1, 0, OBJECT_OP_METHOD, {Bytes((16u << 20) - 64, 0x5a)}, 0, 1)) {
    for (int i = 0; i < count; ++i)
      threads_.emplace_back([this, socket_path] { Run(socket_path); });
  }
  ~MemoryPinners() {
    stop_ = true;
    for (std::thread& t : threads_) t.join();
  }
  int calls() const { return calls_; }
  int ended() const { return ended_; }

 private:
  void Run(const std::string& path) {
    int fd = -1;
    while (!stop_) {
      if (fd < 0) fd = RawConnect(path);
      tarnsocket::FrameHeader reply{};
      if (fd >= 0 && SendAll(fd, frame_) &&
          recv(fd, &reply, sizeof reply, MSG_WAITALL) == static_cast<ssize_t>(sizeof reply)) {
        ++calls_;
        // Drop whatever body the answer has.
        if (!WaitForEnd(fd, milliseconds(100))) continue;
      }
      if (fd >= 0) close(fd);
      fd = -1;
      ++ended_;
      std::this_thread::sleep_for(milliseconds(100));
    }
    if (fd >= 0) close(fd);
  }

  const Bytes frame_;
  std::atomic<bool> stop_{false};
  std::atomic<int> calls_{0};
  std::atomic<int> ended_{0};
  std::vector<std::thread> threads_;
};

struct Timings {
  int runs = 0;
  long max_ms = -1;
  long median_ms = -1;
  int failed = 0;
};

// Runs `teskctl scan` one after the other, at least `runs` times and until
// `enough` says so.
Timings TimeScans(
    const std::string& socket_path, int runs,
    const std::function<bool()>& enough = [] { return true; }) {
  std::vector<long> times;
  Timings timings;
  for (int i = 0; i < runs || !enough(); ++i) {
    const long ms = TimedTeskctlScan(socket_path);
    if (ms < 0) {
      ++timings.failed;
    } else {
      times.push_back(ms);
    }
    std::this_thread::sleep_for(milliseconds(200));
  }
  timings.runs = static_cast<int>(times.size()) + timings.failed;
  if (!times.empty()) {
    std::sort(times.begin(), times.end());
    timings.max_ms = times.back();
    timings.median_ms = times[times.size() / 2];
  }
  return timings;
}

// Times the IPC library logged a client for not answering or not reading.
size_t Offences(tesk_test::DaemonProcess& daemon) {
  return daemon.CountInLog("no answer within") + daemon.CountInLog("peer took no data") +
         daemon.CountInLog("peer did not take a frame");
}

}  // namespace

int RunPressureSoak(const PressureOptions& options) {
  RaiseDescriptorLimit();
  tesk_test::TempDir dir;
  tesk_test::DaemonProcess::Options daemon_options;
  daemon_options.log_levels = "tesk=1";
  tesk_test::DaemonProcess daemon(daemon_options);
  if (!daemon.WaitUntilServing()) {
    fprintf(stderr, "soak: the daemon does not serve\n%s", daemon.Log().c_str());
    return 1;
  }
  const std::string& path = daemon.socket_path();
  TimedTeskctlScan(path);  // creates the location client: part of idle
  const Timings normal = TimeScans(path, 5);
  std::this_thread::sleep_for(milliseconds(500));
  const DaemonFigures idle = ReadFigures(daemon);

  Timings arriving, attacked;
  size_t offences_caught = 0;
  DaemonFigures during;
  int slow_ended = 0, slow_connected = 0, pinned_calls = 0, pinned_ended = 0;
  std::vector<pid_t> clients;
  {
    SlowSenders slow(path, options.slow_senders);
    MemoryPinners pinners(path, options.pinning_connections);
    RoleOptions role{path, 0, 600, dir.Join("reports")};
    for (int i = 0; i < options.callback_clients; ++i) {
      role.seed = static_cast<unsigned>(i + 1);
      const auto& kinds = options.callback_kinds;
      clients.push_back(StartClient(kinds[static_cast<size_t>(i) % kinds.size()], role));
    }
    for (int i = 0; i < options.huge_ranging_clients; ++i) {
      role.seed = static_cast<unsigned>(1000 + i);
      clients.push_back(StartClient("huge-range", role));
    }
    // Each new late, silent or deaf client may hold the daemon's delivering
    // thread once, for one callback answer time, before the library stops
    // waiting for it: scans made while they arrive are timed on their own,
    // until the library has caught every one of them (or a minute passed).
    const auto caught_by = Clock::now() + std::chrono::seconds(60);
    arriving = TimeScans(path, 1, [&] {
      return Offences(daemon) >= static_cast<size_t>(options.callback_clients) ||
             Clock::now() > caught_by;
    });
    offences_caught = Offences(daemon);
    attacked = TimeScans(path, 5);
    during = ReadFigures(daemon);
    slow_connected = slow.connected();
    for (pid_t pid : clients) kill(pid, SIGKILL);
    slow_ended = slow.ended();
    pinned_calls = pinners.calls();
    pinned_ended = pinners.ended();
  }
  for (pid_t pid : clients) waitpid(pid, nullptr, 0);

  DaemonFigures end;
  const auto settle_deadline = Clock::now() + std::chrono::seconds(30);
  do {
    std::this_thread::sleep_for(milliseconds(250));
    end = ReadFigures(daemon);
  } while (Clock::now() < settle_deadline && (end.resident_kib > idle.resident_kib + 16 * 1024 ||
                                              end.descriptors > idle.descriptors));

  KeepLog(daemon);
  // Generous on purpose: a loaded two-core machine must not fail it.
  const long allowed_ms = 2 * (normal.max_ms + options.bound_ms);
  const long arriving_allowed_ms =
      2 * (normal.max_ms + options.bound_ms + options.callback_clients * kCallbackWaitMs);
  printf(
      "pressure soak: %d slow senders, %d callback clients (late, silent, not reading), "
      "%d connections of 16 MiB calls, %d clients of 100,000-target ranging scans\n",
      options.slow_senders, options.callback_clients, options.pinning_connections,
      options.huge_ranging_clients);
  printf("  teskctl scan alone:             median %5ld ms, max %5ld ms, %d of %d failed\n",
         normal.median_ms, normal.max_ms, normal.failed, normal.runs);
  printf(
      "  teskctl scan while they arrive: median %5ld ms, max %5ld ms, %d of %d failed "
      "(allowed: 2 x (%ld + %ld + %d x %ld) = %ld ms); offences caught %zu\n",
      arriving.median_ms, arriving.max_ms, arriving.failed, arriving.runs, normal.max_ms,
      options.bound_ms, options.callback_clients, kCallbackWaitMs, arriving_allowed_ms,
      offences_caught);
  printf(
      "  teskctl scan under attack:      median %5ld ms, max %5ld ms, %d of %d failed "
      "(allowed: 2 x (%ld + %ld) = %ld ms)\n",
      attacked.median_ms, attacked.max_ms, attacked.failed, attacked.runs, normal.max_ms,
      options.bound_ms, allowed_ms);
  printf("  slow senders connected at the end %d, their connections the daemon ended %d\n",
         slow_connected, slow_ended);
  printf("  16 MiB calls answered %d, their connections ended %d\n", pinned_calls, pinned_ended);
  printf("  daemon resident: idle %ld KiB, under attack %ld KiB, after %ld KiB (%+ld KiB)\n",
         idle.resident_kib, during.resident_kib, end.resident_kib,
         end.resident_kib - idle.resident_kib);
  printf("  daemon descriptors: idle %d, under attack %d, after %d\n", idle.descriptors,
         during.descriptors, end.descriptors);
  printf("  daemon threads: idle %d, under attack %d, after %d\n", idle.threads, during.threads,
         end.threads);
  const bool ok =
      daemon.Running() && normal.failed == 0 && arriving.failed == 0 && attacked.failed == 0 &&
      arriving.max_ms <= arriving_allowed_ms && attacked.max_ms <= allowed_ms &&
      end.resident_kib <= idle.resident_kib + 16 * 1024 && end.descriptors <= idle.descriptors;
  printf("pressure soak: %s\n", ok ? "PASSED" : "FAILED");
  return ok ? 0 : 1;
}

}  // namespace tesk_soak
