// Pressure: slow senders, clients that answer late, never answer or never
// read, and clients that pin memory, all at once, while a well-behaved
// client runs `teskctl scan`. Its scans must stay within their normal time
// (measured first, in the same run) plus the bound the IPC library
// documents for a slow peer, and the daemon's memory must come back to
// within 16 MiB of its idle size once the attackers have gone.
#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>

#include <tesk/object.h>

#include "frame.h"
#include "tests/soak/soak.h"
#include "tests/support/temp_dir.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The IPC library's default wait for a callback's answer, which each new
// misbehaving client may cost the daemon's delivering thread once.
constexpr long kCallbackWaitMs = 200;

// Raw connections on threads of their own, counted.
struct Attackers {
  std::atomic<bool> stop{false};
  std::atomic<int> slow_connected{0}, slow_ended{0}, pinned_calls{0}, pinned_ended{0};
  std::vector<std::thread> threads;
  ~Attackers() { Stop(); }
  void Stop() {
    stop = true;
    for (std::thread& t : threads) t.join();
    threads.clear();
  }

  // Connections that each send a valid frame one byte a second. When the
  // daemon ends one, another takes its place.
  void SlowSenders(const std::string& path, int count) {
    threads.emplace_back([this, path, count] {
      struct Sender {
        int fd;
        size_t sent;
        Clock::time_point next;
      };
      const Bytes frame = InvokeFrame(1, 0, OBJECT_OP_METHOD, {{1, 0, 0, 0}}, 0, 1);
      std::vector<Sender> senders;
      for (int i = 0; i < count; ++i) senders.push_back(Sender{RawConnect(path), 0, Clock::now()});
      while (!stop) {
        int connected = 0;
        for (Sender& s : senders) {
          const auto now = Clock::now();
          if (s.fd < 0 || now < s.next) {
            connected += s.fd >= 0;
            continue;
          }
          const ssize_t n =
              send(s.fd, &frame[s.sent % frame.size()], 1, MSG_NOSIGNAL | MSG_DONTWAIT);
          if (n == 1) {
            s = Sender{s.fd, s.sent + 1, now + milliseconds(1000)};
            ++connected;
          } else if (n < 0 && errno != EAGAIN && errno != EINTR) {
            close(s.fd);
            ++slow_ended;
            s = Sender{RawConnect(path), 0, now};
          }
        }
        slow_connected = connected;
        std::this_thread::sleep_for(milliseconds(10));
      }
      for (Sender& s : senders) {
        if (s.fd >= 0) close(s.fd);
      }
    });
  }

  // Connections that each keep sending the root calls of just under 16 MiB,
  // the most a call may carry (the root refuses them for their size, after
  // the library has read them whole).
  void MemoryPinners(const std::string& path, int count) {
    auto frame = std::make_shared<Bytes>(
        InvokeFrame(1, 0, OBJECT_OP_METHOD, {Bytes((16u << 20) - 64, 0x5a)}, 0, 1));
    for (int i = 0; i < count; ++i) {
      threads.emplace_back([this, path, frame] {
        int fd = -1;
        while (!stop) {
          if (fd < 0) fd = RawConnect(path);
          tarnsocket::FrameHeader reply{};
          if (fd >= 0 && SendAll(fd, *frame) &&
              recv(fd, &reply, sizeof reply, MSG_WAITALL) == static_cast<ssize_t>(sizeof reply)) {
            ++pinned_calls;
            if (!WaitForEnd(fd, milliseconds(100))) continue;  // drops the answer's body
          }
          if (fd >= 0) close(fd);
          fd = -1;
          ++pinned_ended;
          std::this_thread::sleep_for(milliseconds(100));
        }
        if (fd >= 0) close(fd);
      });
    }
  }
};

struct Timings {
  int runs = 0, failed = 0;
  long max_ms = -1, median_ms = -1;
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
    if (ms < 0) ++timings.failed;
    if (ms >= 0) times.push_back(ms);
    std::this_thread::sleep_for(milliseconds(200));
  }
  timings.runs = static_cast<int>(times.size()) + timings.failed;
  std::sort(times.begin(), times.end());
  if (!times.empty())
    timings = {timings.runs, timings.failed, times.back(), times[times.size() / 2]};
  return timings;
}

}  // namespace

int RunPressureSoak(const PressureOptions& options) {
  tesk_test::TempDir dir;
  tesk_test::DaemonProcess::Options daemon_options;
  daemon_options.log_levels = "tesk=1";
  tesk_test::DaemonProcess daemon(daemon_options);
  if (!StartDaemon(daemon)) return 1;
  const std::string& path = daemon.socket_path();
  TimedTeskctlScan(path);  // creates the location client: part of idle
  const Timings normal = TimeScans(path, 5);
  std::this_thread::sleep_for(milliseconds(500));
  const DaemonFigures idle = ReadFigures(daemon);
  // Times the IPC library logged a client for not answering or not reading.
  auto offences = [&daemon] {
    return daemon.CountInLog("no answer within") + daemon.CountInLog("peer took no data") +
           daemon.CountInLog("peer did not take a frame");
  };

  Attackers attackers;
  attackers.SlowSenders(path, options.slow_senders);
  attackers.MemoryPinners(path, options.pinning_connections);
  std::vector<pid_t> clients;
  RoleOptions role{path, 0, 600, dir.Join("reports")};
  const auto& kinds = options.callback_kinds;
  for (int i = 0; i < options.callback_clients + options.huge_ranging_clients; ++i) {
    role.seed = static_cast<unsigned>(i + 1);
    const bool huge = i >= options.callback_clients;
    clients.push_back(StartClient(huge ? "huge-range" : kinds[size_t(i) % kinds.size()], role));
  }
  // Each new late, silent or deaf client may hold the daemon's delivering
  // thread once, for one callback answer time, before the library stops
  // waiting for it: scans made while they arrive are timed on their own,
  // until the library has caught every one of them (or a minute passed).
  const auto caught_by = Clock::now() + std::chrono::seconds(60);
  const Timings arriving = TimeScans(path, 1, [&] {
    return offences() >= static_cast<size_t>(options.callback_clients) || Clock::now() > caught_by;
  });
  const size_t offences_caught = offences();
  const Timings attacked = TimeScans(path, 5);
  const DaemonFigures during = ReadFigures(daemon);
  const int slow_connected = attackers.slow_connected;
  for (pid_t pid : clients) kill(pid, SIGKILL);
  attackers.Stop();
  for (pid_t pid : clients) waitpid(pid, nullptr, 0);

  auto back = [&idle](const DaemonFigures& f) {
    return f.resident_kib <= idle.resident_kib + 16 * 1024 && f.descriptors <= idle.descriptors;
  };
  const DaemonFigures end = Settle(daemon, back);
  KeepLog(daemon);
  // Generous on purpose: a loaded two-core machine must not fail it.
  const long allowed_ms = 2 * (normal.max_ms + options.bound_ms);
  const long arriving_allowed_ms = allowed_ms + 2 * options.callback_clients * kCallbackWaitMs;
  printf(
      "pressure soak: %d slow senders, %d callback clients (late, silent, not reading), "
      "%d connections of 16 MiB calls, %d clients of 100,000-target ranging scans\n",
      options.slow_senders, options.callback_clients, options.pinning_connections,
      options.huge_ranging_clients);
  auto print = [](const char* what, const Timings& t) {
    printf("  teskctl scan %-18s median %5ld ms, max %5ld ms, %d of %d failed", what, t.median_ms,
           t.max_ms, t.failed, t.runs);
  };
  print("alone:", normal);
  printf("\n");
  print("while they arrive:", arriving);
  printf(" (allowed: 2 x (%ld + %ld + %d x %ld) = %ld ms); offences caught %zu\n", normal.max_ms,
         options.bound_ms, options.callback_clients, kCallbackWaitMs, arriving_allowed_ms,
         offences_caught);
  print("under attack:", attacked);
  printf(" (allowed: 2 x (%ld + %ld) = %ld ms)\n", normal.max_ms, options.bound_ms, allowed_ms);
  printf("  slow senders connected at the end %d, their connections the daemon ended %d\n",
         slow_connected, attackers.slow_ended.load());
  printf("  16 MiB calls answered %d, their connections ended %d\n", attackers.pinned_calls.load(),
         attackers.pinned_ended.load());
  printf("  daemon resident: idle %ld KiB, under attack %ld KiB, after %ld KiB (%+ld KiB)\n",
         idle.resident_kib, during.resident_kib, end.resident_kib,
         end.resident_kib - idle.resident_kib);
  printf("  daemon descriptors: idle %d, under attack %d, after %d\n", idle.descriptors,
         during.descriptors, end.descriptors);
  printf("  daemon threads: idle %d, under attack %d, after %d\n", idle.threads, during.threads,
         end.threads);
  const bool ok = daemon.Running() && normal.failed + arriving.failed + attacked.failed == 0 &&
                  arriving.max_ms <= arriving_allowed_ms && attacked.max_ms <= allowed_ms &&
                  back(end);
  printf("pressure soak: %s\n", ok ? "PASSED" : "FAILED");
  return ok ? 0 : 1;
}

}  // namespace tesk_soak
