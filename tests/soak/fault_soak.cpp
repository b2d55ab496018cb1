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
#include <thread>

#include "tests/soak/soak.h"

namespace tesk_soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Writes the built-in neighbourhood plus every kind of fault, each on its
// own residue of the request ids so that all of them recur throughout.
std::string WriteFaultScenario(const std::string& path) {
  std::ofstream text(path);
  text << std::ifstream(TESK_SOAK_NEIGHBOURHOOD).rdbuf() << "\n";
  std::istringstream faults(
      "drop 7 null 13 wrong-type 19 odd-type 23 odd-measurement 29 duplicate 31 refuse 43 status "
      "37");
  std::string fault;
  for (unsigned residue = 0; faults >> fault >> residue;) {
    text << "fault " << fault << " ";
    for (unsigned id = residue; id < 200000; id += 50) text << (id == residue ? "" : ",") << id;
    text << (fault == "status" ? " 3\n" : "\n");
  }
  return path;
}

// Keeps `clients` client processes running for `seconds`, handing out the
// roles in turn and killing one in eight from outside at a moment of no
// choosing, then waits for the last of them. Returns how many failed.
int RunMix(const std::vector<std::string>& roles, int clients, double seconds, RoleOptions options,
           std::minstd_rand& random, int* started, int* killed) {
  int failed = 0;
  std::map<pid_t, Clock::time_point> running;  // pid -> when the soak kills it (or never)
  const auto deadline = Clock::now() + milliseconds(static_cast<int64_t>(seconds * 1000));
  while (Clock::now() < deadline || !running.empty()) {
    const auto now = Clock::now();
    while (now < deadline && static_cast<int>(running.size()) < clients) {
      const std::string& role = roles[static_cast<size_t>(*started) % roles.size()];
      options.seed = static_cast<unsigned>(++*started + static_cast<int>(random() % 1000));
      const double left = std::chrono::duration<double>(deadline - now).count();
      options.seconds = std::min(left, 1.0 + static_cast<double>(random() % 5000) / 1000);
      running[StartClient(role, options)] =
          random() % 8 == 0 ? now + milliseconds(random() % 1500) : Clock::time_point::max();
    }
    for (auto it = running.begin(); it != running.end();) {
      if (now >= it->second) {
        kill(it->first, SIGKILL);
        ++*killed;
        it->second = Clock::time_point::max();
      }
      int status = 0;
      // Only our clients: the daemon is a child of this process too.
      if (waitpid(it->first, &status, WNOHANG) == it->first) {
        failed += WIFEXITED(status) && WEXITSTATUS(status) != 0;
        it = running.erase(it);
      } else {
        ++it;
      }
    }
    std::this_thread::sleep_for(milliseconds(10));
  }
  return failed;
}

}  // namespace

int RunFaultSoak(double seconds, int clients, const std::vector<std::string>& roles) {
  tesk_test::TempDir scenario_dir;
  Soak soak({"VELA_SCENARIO=" + WriteFaultScenario(scenario_dir.Join("faults.scn"))});
  // The same mix for a while first: thread pools, allocator arenas and the
  // location client grow to their working size, so that what the soak then
  // compares is what the clients leave behind.
  std::minstd_rand random(20261124);
  RoleOptions options{soak.daemon.socket_path(), 0, 1.0, soak.dir.Join("warm-up")};
  int started = 0, killed = 0;
  RunMix(roles, clients, std::min(10.0, seconds / 4), options, random, &started, &killed);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const Figures baseline = soak.Read();
  started = killed = 0;
  options.report_path = soak.report;
  const int failed = RunMix(roles, clients, seconds, options, random, &started, &killed);
  printf("fault soak: %.0f s, %d clients at once, %d clients started, %d killed by the soak\n",
         seconds, clients, started, killed);
  const bool ok = soak.Check(baseline, failed);
  printf("fault soak: %s\n", ok ? "PASSED" : "FAILED");
  return ok ? 0 : 1;
}

}  // namespace tesk_soak
