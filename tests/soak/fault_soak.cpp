// The fault soak: many clients behaving well and badly at once while the
// simulated location service injects faults; afterwards the daemon must be
// alive, answering, holding nothing for anybody, and back to its baseline.
#include <signal.h>
#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "tests/soak/soak.h"
#include "tests/support/temp_dir.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// The built-in neighbourhood plus every kind of fault, each on its own
// residue of the request ids so that all of them recur throughout.
std::string FaultScenario() {
  std::ifstream neighbourhood(TESK_SOAK_NEIGHBOURHOOD);
  std::stringstream text;
  text << neighbourhood.rdbuf() << "\n";
  const std::pair<const char*, unsigned> faults[] = {{"drop", 7},
                                                     {"null", 13},
                                                     {"wrong-type", 19},
                                                     {"odd-type", 23},
                                                     {"odd-measurement", 29},
                                                     {"duplicate", 31},
                                                     {"refuse", 43},
                                                     {"status", 37}};
  for (const auto& [fault, residue] : faults) {
    text << "fault " << fault << " ";
    for (unsigned id = residue; id < 200000; id += 50) text << (id == residue ? "" : ",") << id;
    text << (std::string(fault) == "status" ? " 3\n" : "\n");
  }
  return text.str();
}

// The report lines summed per role, after the number of clients.
std::map<std::string, std::vector<long>> ReadReports(const std::string& path) {
  std::map<std::string, std::vector<long>> totals;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string role;
    words >> role;
    std::vector<long>& sums = totals[role];
    sums.resize(9);
    ++sums[0];
    long value = 0;
    for (size_t i = 1; i < sums.size() && words >> value; ++i) sums[i] += value;
  }
  return totals;
}

struct MixCounts {
  int started = 0;
  int killed = 0;  // by the soak, from outside
  int failed = 0;  // clients that exited reporting a fault
};

// Keeps `clients` client processes running for `seconds`, handing out the
// roles in turn, then waits for the last of them.
MixCounts RunMix(const std::vector<std::string>& roles, int clients, double seconds,
                 RoleOptions options, std::minstd_rand& random) {
  MixCounts counts;
  std::map<pid_t, Clock::time_point> running;  // pid -> when the soak kills it (or never)
  const auto deadline = Clock::now() + milliseconds(static_cast<int64_t>(seconds * 1000));
  while (Clock::now() < deadline || !running.empty()) {
    const auto now = Clock::now();
    while (now < deadline && static_cast<int>(running.size()) < clients) {
      const std::string& role = roles[static_cast<size_t>(counts.started) % roles.size()];
      options.seed = static_cast<unsigned>(++counts.started + static_cast<int>(random() % 1000));
      const double left = std::chrono::duration<double>(deadline - now).count();
      options.seconds = std::min(left, 1.0 + static_cast<double>(random() % 5000) / 1000);
      const pid_t pid = StartClient(role, options);
      // One client in eight is killed from outside at a moment of no choosing.
      running[pid] =
          random() % 8 == 0 ? now + milliseconds(random() % 1500) : Clock::time_point::max();
    }
    bool reaped = false;
    for (auto it = running.begin(); it != running.end();) {
      if (now >= it->second) {
        kill(it->first, SIGKILL);
        ++counts.killed;
        it->second = Clock::time_point::max();
      }
      int status = 0;
      // Only our clients: the daemon is a child of this process too.
      if (waitpid(it->first, &status, WNOHANG) == it->first) {
        counts.failed += WIFEXITED(status) && WEXITSTATUS(status) != 0;
        it = running.erase(it);
        reaped = true;
      } else {
        ++it;
      }
    }
    if (!reaped) std::this_thread::sleep_for(milliseconds(10));
  }
  return counts;
}

}  // namespace

int RunFaultSoak(double seconds, int clients, const std::vector<std::string>& roles) {
  tesk_test::TempDir dir;
  const std::string scenario = dir.Join("faults.scn"), report = dir.Join("reports");
  std::ofstream(scenario) << FaultScenario();
  tesk_test::DaemonProcess::Options daemon_options;
  daemon_options.environment = {"VELA_SCENARIO=" + scenario};
  daemon_options.log_levels = "tesk=2";
  tesk_test::DaemonProcess daemon(daemon_options);
  if (!StartDaemon(daemon)) return 1;
  const DaemonFigures cold = ReadFigures(daemon);
  // The same mix for a while first: thread pools, allocator arenas and the
  // location client grow to their working size, so that what the soak then
  // compares is what the clients leave behind.
  std::minstd_rand random(20261124);
  RoleOptions options{daemon.socket_path(), 0, 1.0, dir.Join("warm-up")};
  const double warm_up = std::min(10.0, seconds / 4);
  RunMix(roles, clients, warm_up, options, random);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const DaemonFigures baseline = ReadFigures(daemon);

  options.report_path = report;
  const MixCounts mix = RunMix(roles, clients, seconds, options, random);

  // Every scan that started logs "returning 0"; every handle, when its last
  // reference goes, logs one of the two release lines. A pending entry never
  // outlives its handle, so equal counts mean nothing is pending.
  size_t given = 0, taken_back = 0;
  auto settled = [&](const DaemonFigures& f) {
    given = daemon.CountInLog("returning 0\n");
    taken_back = daemon.CountInLog("Dispatcher: Expected release for ID") +
                 daemon.CountInLog("Dispatcher: Aborted ID");
    return given == taken_back && f.descriptors <= baseline.descriptors &&
           f.resident_kib <= baseline.resident_kib + 16 * 1024;
  };
  // Time for the daemon to notice the last deaths and let go of everything.
  const DaemonFigures end = Settle(daemon, settled);
  const bool back = settled(end);
  KeepLog(daemon);
  // No two ids in a row carry a fault: a second attempt is never dropped.
  const long answer_ms = TimedTeskctlScan(daemon.socket_path(), 2);
  const bool alive = daemon.Running();

  long retained = 0, released = 0;
  printf("fault soak: %.0f s, %d clients at once, %d clients started, %d killed by the soak\n",
         seconds, clients, mix.started, mix.killed);
  const char* columns[] = {"clients",    "started", "refused",  "results", "unanswered",
                           "reconnects", "ended",   "retained", "released"};
  printf("  %-14s", "role");
  for (const char* column : columns) printf(" %10s", column);
  for (const auto& [role, sums] : ReadReports(report)) {
    printf("\n  %-14s", role.c_str());
    for (const long sum : sums) printf(" %10ld", sum);
    retained += sums[7];
    released += sums[8];
  }
  printf("\n  clients reporting a fault: %d\n", mix.failed);
  printf("  client callbacks: retained %ld, released %ld\n", retained, released);
  printf("  scan handles: given %zu, taken back %zu (pending: %ld)\n", given, taken_back,
         static_cast<long>(given - taken_back));
  printf("  connections the library ended: %zu\n", daemon.CountInLog("tarnsocket: Connection"));
  printf("  daemon descriptors: baseline %d, end %d\n", baseline.descriptors, end.descriptors);
  printf(
      "  daemon resident: idle %ld KiB, after %.0f s of warm-up %ld KiB, end %ld KiB (%+ld KiB)\n",
      cold.resident_kib, warm_up, baseline.resident_kib, end.resident_kib,
      end.resident_kib - baseline.resident_kib);
  printf("  daemon threads: idle %d, after warm-up %d, end %d\n", cold.threads, baseline.threads,
         end.threads);
  printf("  daemon alive: %s, teskctl scan afterwards: %s (%ld ms)\n", alive ? "yes" : "no",
         answer_ms >= 0 ? "ok" : "failed", answer_ms);
  const bool ok = alive && answer_ms >= 0 && mix.failed == 0 && retained == released && back;
  printf("fault soak: %s\n", ok ? "PASSED" : "FAILED");
  return ok ? 0 : 1;
}

}  // namespace tesk_soak
