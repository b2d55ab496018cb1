#include "tests/support/daemon_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "tests/support/emulator.h"

extern char** environ;

namespace tesk_test {

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& extra,
                   const std::string& out, const std::string& err) {
  const auto name = [](const std::string& entry) { return entry.substr(0, entry.find('=')); };
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; ++e) {
    const auto same = [&](const std::string& x) { return name(x) == name(*e); };
    if (std::none_of(extra.begin(), extra.end(), same)) env.push_back(*e);
  }
  for (const std::string& x : extra) {
    if (x != name(x)) env.push_back(x);
  }
  std::vector<std::string> args = NativeCommand(argv);
  std::vector<char*> argp = ArgumentPointers(args), envp = ArgumentPointers(env);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  const int create = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), create, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), create, 0600);
  pid_t pid = -1;
  const int failed = posix_spawn(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  return failed ? -1 : pid;
}

int AwaitExit(pid_t pid) {
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid) return 127;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string BuiltBinary(const std::string& name) {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
}

DaemonProcess::DaemonProcess(Options options) : socket_path_(dir_.Join("tesk")) {
  if (options.program.empty()) options.program = BuiltBinary("tesk");
  std::vector<std::string> extra = options.environment;
  extra.push_back("KY_LOG_LEVEL=" + options.log_levels);
  extra.push_back("ANDROID_SOCKET_tesk");
  int socket_fd = -1;
  if (options.socket_type != 0) {
    socket_fd = socket(AF_UNIX, options.socket_type, 0);  // inherited: no SOCK_CLOEXEC
    sockaddr_un address{AF_UNIX, {}};
    socket_path_.copy(address.sun_path, sizeof address.sun_path - 1);
    if (socket_fd < 0 ||
        bind(socket_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("cannot create the control socket");
    }
    extra.back() += "=" + std::to_string(socket_fd);
  }
  pid_ = StartProcess({options.program}, extra, "/dev/null", dir_.Join("log"));
  if (socket_fd >= 0) close(socket_fd);
  if (pid_ < 0) throw std::runtime_error("cannot start " + options.program);
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::string DaemonProcess::Log() const {
  return ReadFile(dir_.Join("log"));
}

bool DaemonProcess::WaitForLog(const std::string& text, std::chrono::milliseconds timeout) const {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (Log().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    usleep(10000);
  }
  return true;
}

size_t DaemonProcess::CountInLog(const std::string& text) const {
  const std::string log = Log();
  size_t count = 0;
  for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++count;
  return count;
}

bool DaemonProcess::Running() {
  if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
  return pid_ > 0;
}

int DaemonProcess::OpenDescriptorCount() const {
  std::error_code error;
  const std::filesystem::directory_iterator fds("/proc/" + std::to_string(pid_) + "/fd", error);
  return error ? -1 : static_cast<int>(std::distance(fds, {}));
}

long DaemonProcess::Status(const std::string& field) const {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(field.size()));
  }
  return -1;
}

ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& environment) {
  const TempDir dir;
  ProcessResult result;
  result.exit_code = AwaitExit(StartProcess(argv, environment, dir.Join("out"), dir.Join("err")));
  result.out = ReadFile(dir.Join("out"));
  result.err = ReadFile(dir.Join("err"));
  return result;
}

}  // namespace tesk_test
