// tesk_soak: runs the daemon and many client processes against it.
//   tesk_soak faults [--seconds N] [--clients N] [--roles ROLE,ROLE...]
//   tesk_soak pressure [--slow-senders N] [--callback-clients N]
//                      [--callback-kinds late,silent,deaf,fickle] [--pinning-connections N]
//                      [--huge-ranging-clients N] [--bound-ms N]
//   tesk_soak --role NAME ...   (one client; the soak starts itself this way)
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/soak/soak.h"

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

bool StartDaemon(tesk_test::DaemonProcess& daemon) {
  if (daemon.WaitUntilServing()) return true;
  fprintf(stderr, "soak: the daemon does not serve\n%s", daemon.Log().c_str());
  return false;
}

DaemonFigures ReadFigures(tesk_test::DaemonProcess& daemon) {
  DaemonFigures figures{daemon.OpenDescriptorCount(), daemon.ResidentKilobytes(), 0};
  std::ifstream status("/proc/" + std::to_string(daemon.pid()) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Threads:", 0) == 0) figures.threads = std::stoi(line.substr(8));
  }
  return figures;
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

int main(int argc, char** argv) {
  const std::string mode = argc > 1 ? argv[1] : "";
  // Options come in pairs "--name value", after the mode word if any.
  std::map<std::string, std::string> args;
  bool usage = argc < 2;
  for (int i = mode.rfind("--", 0) == 0 ? 1 : 2; i < argc; i += 2) {
    usage |= i + 1 == argc || std::string(argv[i]).rfind("--", 0) != 0;
    if (i + 1 < argc) args[argv[i]] = argv[i + 1];
  }
  auto number = [&args](const char* name, double otherwise) {
    const auto it = args.find(name);
    return it == args.end() ? otherwise : std::stod(it->second);
  };
  auto list = [&args](const char* name, std::vector<std::string> otherwise) {
    if (args.count(name) == 0) return otherwise;
    std::vector<std::string> words;
    std::stringstream text(args[name]);
    for (std::string one; std::getline(text, one, ',');) words.push_back(one);
    return words;
  };
  if (!usage && args.count("--role") != 0) {
    return tesk_soak::RunRole(args["--role"], {args["--socket"], unsigned(number("--seed", 1)),
                                               number("--seconds", 5), args["--report"]});
  }
  // Many connections at once need a descriptor each, here and in the daemon,
  // which inherits the limit.
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  if (!usage && mode == "faults") {
    return tesk_soak::RunFaultSoak(number("--seconds", 45), int(number("--clients", 24)),
                                   list("--roles", tesk_soak::RoleNames()));
  }
  tesk_soak::PressureOptions pressure;
  pressure.slow_senders = int(number("--slow-senders", pressure.slow_senders));
  pressure.callback_clients = int(number("--callback-clients", pressure.callback_clients));
  pressure.callback_kinds = list("--callback-kinds", pressure.callback_kinds);
  pressure.pinning_connections = int(number("--pinning-connections", pressure.pinning_connections));
  pressure.huge_ranging_clients =
      int(number("--huge-ranging-clients", pressure.huge_ranging_clients));
  pressure.bound_ms = long(number("--bound-ms", double(pressure.bound_ms)));
  if (!usage && mode == "pressure") return tesk_soak::RunPressureSoak(pressure);
  fprintf(stderr,
          "usage: tesk_soak faults [--seconds N] [--clients N] [--roles ROLE,ROLE...]\n"
          "       tesk_soak pressure [--slow-senders N] [--callback-clients N] "
          "[--callback-kinds late,silent,deaf,fickle]\n"
          "                          [--pinning-connections N] [--huge-ranging-clients N] "
          "[--bound-ms N]\n");
  return 64;
}
