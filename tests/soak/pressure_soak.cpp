// Pressure: slow senders, clients that answer late, never answer or never
// read, clients that pin memory, and a client of huge ranging scans, all at
// once, while a well-behaved client runs `teskctl scan`. Its scans, while
// the misbehaving clients arrive and once the IPC library has caught them,
// must stay within a second of their time alone (measured first, in the
// same run; the library bounds the delay to a quarter of a second, the rest
// is slack for a loaded machine), and the daemon must come back to its
// baseline once they have gone.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <thread>

#include "tests/soak/soak.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;

struct Timings {
  int runs = 0, failed = 0;
  long max_ms = -1, median_ms = -1;
};

// Runs `teskctl scan` one after the other, for at least `runs` scans and
// `at_least`, and until `enough` says so.
Timings TimeScans(
    const std::string& path, int runs, std::chrono::milliseconds at_least,
    const std::function<bool()>& enough = [] { return true; }) {
  std::vector<long> times;
  Timings t;
  const auto until = Clock::now() + at_least;
  for (; t.runs < runs || Clock::now() < until || !enough(); ++t.runs) {
    const long ms = TimedTeskctlScan(path);
    if (ms < 0) ++t.failed;
    if (ms >= 0) times.push_back(ms);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  std::sort(times.begin(), times.end());
  if (!times.empty()) t = {t.runs, t.failed, times.back(), times[times.size() / 2]};
  return t;
}

}  // namespace

int RunPressureSoak(const std::vector<std::string>& callback_kinds, int huge_ranging_clients) {
  constexpr size_t kCallbackClients = 50, kPinners = 8;
  Soak soak({});
  const std::string& path = soak.daemon.socket_path();
  TimedTeskctlScan(path);  // creates the location client: part of idle
  const Timings alone = TimeScans(path, 5, {});
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const Figures idle = soak.Read();
  // Times the IPC library logged a client for not answering or not reading.
  auto offences = [&soak] {
    return soak.daemon.CountInLog("no answer within") +
           soak.daemon.CountInLog("peer took no data") +
           soak.daemon.CountInLog("peer did not take a frame");
  };

  std::vector<std::string> roles(kPinners, "pinner");
  roles.push_back("slow-senders");
  for (size_t i = 0; i < kCallbackClients; ++i)
    roles.push_back(callback_kinds[i % callback_kinds.size()]);
  roles.insert(roles.end(), size_t(huge_ranging_clients), "huge-range");
  std::vector<pid_t> clients;
  for (const std::string& role : roles)
    clients.push_back(StartClient(role, {path, unsigned(clients.size() + 1), 600, soak.report}));
  // Scans while they arrive are timed on their own, until the library has
  // caught each late, silent or deaf client once (or a minute passed).
  const auto caught_by = Clock::now() + std::chrono::seconds(60);
  const Timings arriving = TimeScans(
      path, 5, {}, [&] { return offences() >= kCallbackClients || Clock::now() > caught_by; });
  const size_t caught = offences();
  // Long enough for the slow senders' frames to be overdue.
  const Timings attacked = TimeScans(path, 5, std::chrono::seconds(3));
  const Figures during = soak.Read();
  int failed = 0;
  for (pid_t pid : clients) kill(pid, SIGTERM);
  for (pid_t pid : clients) failed += tesk_test::AwaitExit(pid) != 0;

  printf(
      "pressure soak: %zu connections of 16 MiB calls, 1,000 slow senders, %zu callback clients "
      "(%zu kinds), %d clients of 100,000-target ranging scans\n",
      kPinners, kCallbackClients, callback_kinds.size(), huge_ranging_clients);
  const long allowed_ms = alone.max_ms + 1000;
  auto print = [allowed_ms](const char* what, const Timings& t) {
    printf("  teskctl scan %-18s median %5ld ms, max %5ld ms, %d of %d failed (allowed %ld ms)\n",
           what, t.median_ms, t.max_ms, t.failed, t.runs, allowed_ms);
  };
  print("alone:", alone);
  print("while they arrive:", arriving);
  print("once caught:", attacked);
  printf("  offences caught while they arrived: %zu\n", caught);
  printf("  daemon under attack: descriptors %d, resident %ld KiB, threads %d\n",
         during.descriptors, during.resident_kib, during.threads);
  const bool back = soak.Check(idle, failed);
  const bool ok = back && alone.failed + arriving.failed + attacked.failed == 0 &&
                  arriving.max_ms <= allowed_ms && attacked.max_ms <= allowed_ms;
  printf("pressure soak: %s\n", ok ? "PASSED" : "FAILED");
  return ok ? 0 : 1;
}

}  // namespace tesk_soak
