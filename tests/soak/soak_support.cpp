#include "tests/soak/soak_support.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

namespace tesk_soak {

pid_t StartClient(const std::string& role, const RoleOptions& options) {
  std::vector<std::string> args = {"/proc/self/exe",
                                   "--role",
                                   role,
                                   "--socket",
                                   options.socket_path,
                                   "--seed",
                                   std::to_string(options.seed),
                                   "--seconds",
                                   std::to_string(options.seconds),
                                   "--report",
                                   options.report_path};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    // The library's lines about connections the daemon ended are expected
    // here by the hundred; each client reports through its line instead.
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  return pid;
}

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
}

DaemonFigures ReadFigures(tesk_test::DaemonProcess& daemon) {
  DaemonFigures figures;
  figures.descriptors = daemon.OpenDescriptorCount();
  figures.resident_kib = daemon.ResidentKilobytes();
  std::ifstream status("/proc/" + std::to_string(daemon.pid()) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0) figures.threads = std::stoi(line.substr(8));
  }
  return figures;
}

HandleCounts CountHandles(tesk_test::DaemonProcess& daemon) {
  HandleCounts counts;
  // Every scan that started logs "returning 0"; every handle, when its last
  // reference goes, logs one of the two release lines. A pending entry never
  // outlives its handle, so equal counts mean nothing is pending.
  counts.started = daemon.CountInLog("returning 0\n");
  counts.released = daemon.CountInLog("Dispatcher: Expected release for ID") +
                    daemon.CountInLog("Dispatcher: Aborted ID");
  return counts;
}

void KeepLog(tesk_test::DaemonProcess& daemon) {
  const char* path = getenv("TESK_SOAK_LOG");
  if (path != nullptr && path[0] != '\0') std::ofstream(path) << daemon.Log();
}

long TimedTeskctlScan(const std::string& socket_path, int attempts) {
  for (int attempt = 1;; ++attempt) {
    const auto start = std::chrono::steady_clock::now();
    const tesk_test::ProcessResult result = tesk_test::RunProcess(
        {tesk_test::BuiltBinary("teskctl"), "--timeout", attempts > 1 ? "5" : "30", "scan"},
        {"TESK_SOCKET=" + socket_path});
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - start);
    if (result.exit_code == 0) return static_cast<long>(took.count());
    if (attempt >= attempts) {
      fprintf(stderr, "soak: teskctl scan failed (%d): %s\n", result.exit_code, result.err.c_str());
      return -1;
    }
  }
}

}  // namespace tesk_soak
