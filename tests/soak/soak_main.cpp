// tesk_soak: runs the daemon and many client processes against it.
//   tesk_soak faults [--seconds N] [--clients N] [--roles ROLE,ROLE...]
//   tesk_soak pressure [--callback-kinds late,silent,deaf,slow] [--huge-ranging-clients N]
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "tests/soak/soak.h"

namespace tesk_soak {

using namespace std::chrono_literals;

pid_t StartClient(const std::string& role, const RoleOptions& options) {
  const pid_t pid = fork();  // this process has no other thread
  if (pid != 0) return pid;
  // The library's lines about connections the daemon ended are expected
  // here by the hundred; each client reports through its line instead.
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  dup2(null, STDERR_FILENO);
  _exit(RunRole(role, options));
}

Soak::Soak(const std::vector<std::string>& environment)
    : daemon(tesk_test::DaemonProcess::Options{"", environment}) {
  if (!daemon.WaitUntilServing()) fprintf(stderr, "soak: the daemon does not serve\n");
}

Figures Soak::Read() {
  return {daemon.OpenDescriptorCount(), daemon.Status("VmRSS:"), int(daemon.Status("Threads:"))};
}

bool Soak::Check(const Figures& baseline, int failed_clients) {
  // Every scan that started logs "returning 0"; every handle, when its last
  // reference goes, logs one of the two release lines. A pending entry never
  // outlives its handle, so equal counts mean nothing is pending.
  size_t given = 0, taken_back = 0;
  Figures end;
  bool back = false;
  for (const auto until = std::chrono::steady_clock::now() + 30s;
       !back && std::chrono::steady_clock::now() < until;) {
    std::this_thread::sleep_for(200ms);
    end = Read();
    given = daemon.CountInLog("returning 0\n");
    taken_back = daemon.CountInLog("Dispatcher: Expected release for ID") +
                 daemon.CountInLog("Dispatcher: Aborted ID");
    back = given == taken_back && end.descriptors <= baseline.descriptors &&
           end.resident_kib <= baseline.resident_kib + 16 * 1024;
  }
  if (const char* path = getenv("TESK_SOAK_LOG"); path != nullptr && path[0] != '\0') {
    std::ofstream(path) << daemon.Log();
  }
  // No two ids in a row carry a fault: a second attempt is never dropped.
  const long answer_ms = TimedTeskctlScan(daemon.socket_path(), 2);
  const bool alive = daemon.Running();

  // Report lines summed per role: clients started refused results
  // unanswered reconnects ended retained released.
  std::map<std::string, std::array<long, 9>> roles;
  std::ifstream in(report);
  for (std::string role; in >> role;) {
    std::array<long, 9>& sums = roles[role];
    ++sums[0];
    long value = 0;
    for (size_t i = 1; i < sums.size() && in >> value; ++i) sums[i] += value;
  }
  printf(
      "  role              clients    started    refused    results unanswered reconnects"
      "      ended   retained   released");
  long retained = 0, released = 0;
  for (const auto& [role, sums] : roles) {
    printf("\n  %-14s", role.c_str());
    for (const long sum : sums) printf(" %10ld", sum);
    retained += sums[7];
    released += sums[8];
  }
  printf("\n  clients reporting a fault: %d\n", failed_clients);
  printf("  client callbacks: retained %ld, released %ld\n", retained, released);
  printf("  scan handles: given %zu, taken back %zu (pending: %ld)\n", given, taken_back,
         static_cast<long>(given - taken_back));
  printf("  connections the library ended: %zu\n", daemon.CountInLog("tarnsocket: Connection"));
  printf("  daemon descriptors %d -> %d, resident %ld -> %ld KiB (%+ld KiB), threads %d -> %d\n",
         baseline.descriptors, end.descriptors, baseline.resident_kib, end.resident_kib,
         end.resident_kib - baseline.resident_kib, baseline.threads, end.threads);
  printf("  daemon alive: %s, teskctl scan afterwards: %s (%ld ms)\n", alive ? "yes" : "no",
         answer_ms >= 0 ? "ok" : "failed", answer_ms);
  return back && alive && answer_ms >= 0 && failed_clients == 0 && retained == released;
}

long TimedTeskctlScan(const std::string& socket_path, int attempts) {
  for (int attempt = 1;; ++attempt) {
    const auto start = std::chrono::steady_clock::now();
    const tesk_test::ProcessResult result = tesk_test::RunProcess(
        {tesk_test::BuiltBinary("teskctl"), "--timeout", attempts > 1 ? "5" : "30", "scan"},
        {"TESK_SOCKET=" + socket_path});
    if (result.exit_code == 0) return (std::chrono::steady_clock::now() - start) / 1ms;
    if (attempt >= attempts) {
      fprintf(stderr, "soak: teskctl scan failed (%d): %s\n", result.exit_code, result.err.c_str());
      return -1;
    }
  }
}

}  // namespace tesk_soak

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  // Options come in pairs "--name value" after the mode word; their defaults
  // (the fault soak hands out its roles in turn).
  std::map<std::string, std::string> args = {
      {"--seconds", "45"},
      {"--clients", "24"},
      {"--roles", "scan,range,early,deauth,slow,scan,range,silent,deauth,deaf,malformed"},
      {"--callback-kinds", "late,silent,deaf"},
      {"--huge-ranging-clients", "1"}};
  bool usage = argc % 2 != 0;
  for (int i = 2; i + 1 < argc; i += 2) {
    usage |= args.count(argv[i]) == 0;
    args[argv[i]] = argv[i + 1];
  }
  auto list = [&args](const char* name) {
    std::vector<std::string> words;
    std::stringstream text(args[name]);
    for (std::string one; std::getline(text, one, ',');) words.push_back(one);
    return words;
  };
  // Many connections at once need a descriptor each, here, in the clients
  // and in the daemon, which inherit the limit.
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (!usage && mode == "faults") {
    return tesk_soak::RunFaultSoak(std::stod(args["--seconds"]), std::stoi(args["--clients"]),
                                   list("--roles"));
  }
  if (!usage && mode == "pressure") {
    return tesk_soak::RunPressureSoak(list("--callback-kinds"),
                                      std::stoi(args["--huge-ranging-clients"]));
  }
  fprintf(stderr,
          "usage: tesk_soak faults [--seconds N] [--clients N] [--roles ROLE,ROLE...]\n"
          "       tesk_soak pressure [--callback-kinds late,silent,deaf,slow] "
          "[--huge-ranging-clients N]\n");
  return 64;
}
