#include "tests/support/daemon_process.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <dirent.h>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "tests/support/emulator.h"

extern char** environ;

namespace tesk_test {
namespace {

std::string ExecutableDir() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) throw std::runtime_error("readlink /proc/self/exe failed");
  std::string exe(path, static_cast<size_t>(n));
  return exe.substr(0, exe.rfind('/'));
}

// The environment of a child: ours, minus the names given, plus `extra`.
std::vector<std::string> ChildEnvironment(const std::vector<std::string>& extra) {
  std::vector<std::string> result;
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string entry = *e;
    const std::string name = entry.substr(0, entry.find('='));
    bool overridden = false;
    for (const std::string& x : extra) {
      if (x.compare(0, x.find('=') + 1, name + "=") == 0 || x == name) overridden = true;
    }
    if (!overridden) result.push_back(entry);
  }
  for (const std::string& x : extra) {
    if (x.find('=') != std::string::npos) result.push_back(x);  // bare NAME means unset
  }
  return result;
}

// Removes the line holding `text` once it is complete.
void DropLine(std::string* log, const char* text) {
  const size_t at = log->find(text);
  const size_t end = at == std::string::npos ? at : log->find('\n', at);
  if (end == std::string::npos) return;
  const size_t start = log->rfind('\n', at);
  const size_t begin = start == std::string::npos ? 0 : start + 1;
  log->erase(begin, end + 1 - begin);
}

int ExitCode(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

}  // namespace

std::string BuiltBinary(const std::string& name) {
  return ExecutableDir() + "/" + name;
}

std::string BuiltLibrary(const std::string& file_name) {
  const std::string bin = ExecutableDir();
  return bin.substr(0, bin.rfind('/')) + "/lib/" + file_name;
}

std::string NativeProgram(const std::string& binary) {
  const std::vector<std::string> command = NativeCommand({binary});
  if (command.size() == 1) return binary;
  static TempDir scripts;  // one per test process, removed at its exit
  const std::string script = scripts.Join(binary.substr(binary.rfind('/') + 1));
  std::ofstream out(script);
  out << "#!/bin/sh\nexec";
  for (const std::string& word : command) out << " '" << word << "'";
  out << " \"$@\"\n";
  out.close();
  if (!out || chmod(script.c_str(), 0755) != 0) throw std::runtime_error("cannot write " + script);
  return script;
}

DaemonProcess::DaemonProcess(Options options) {
  socket_path_ = dir_.Join("tesk");
  if (options.program.empty()) options.program = BuiltBinary("tesk");

  std::vector<std::string> extra = options.environment;
  extra.push_back("KY_LOG_LEVEL=" + options.log_levels);
  int socket_fd = -1;
  if (options.provide_socket) {
    socket_fd = socket(AF_UNIX, options.socket_type, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, socket_path_.c_str(), sizeof addr.sun_path - 1);
    if (socket_fd < 0 || bind(socket_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      throw std::runtime_error("cannot create the control socket");
    }
    extra.push_back("ANDROID_SOCKET_tesk=" + std::to_string(socket_fd));
  } else {
    extra.push_back("ANDROID_SOCKET_tesk");
  }

  int log_pipe[2];
  if (pipe2(log_pipe, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
  std::vector<std::string> env = ChildEnvironment(extra);
  std::vector<std::string> args = NativeCommand({options.program});
  std::vector<char*> envp = ArgumentPointers(env);
  std::vector<char*> argv = ArgumentPointers(args);

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    dup2(log_pipe[1], STDERR_FILENO);
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(log_pipe[1]);
  if (socket_fd >= 0) close(socket_fd);
  reader_ = std::thread([this, fd = log_pipe[0]] { ReadLog(fd); });
}

DaemonProcess::~DaemonProcess() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, &status_, 0);
  }
  if (reader_.joinable()) reader_.join();
}

void DaemonProcess::ReadLog(int fd) {
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(fd, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    std::lock_guard<std::mutex> lock(mutex_);
    log_.append(buffer, static_cast<size_t>(n));
    if (kUnderEmulator) DropLine(&log_, kEmulatorOnlyLogLine);
    changed_.notify_all();
  }
  close(fd);
}

bool DaemonProcess::WaitForLog(const std::string& text, std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, timeout, [&] { return log_.find(text) != std::string::npos; });
}

std::string DaemonProcess::Log() {
  std::lock_guard<std::mutex> lock(mutex_);
  return log_;
}

size_t DaemonProcess::CountInLog(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t count = 0;
  for (size_t at = log_.find(text); at != std::string::npos; at = log_.find(text, at + 1)) {
    ++count;
  }
  return count;
}

bool DaemonProcess::Running() {
  if (pid_ <= 0) return false;
  if (waitpid(pid_, &status_, WNOHANG) == pid_) {
    pid_ = -1;
    return false;
  }
  return true;
}

bool DaemonProcess::WaitUntilServing(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, socket_path_.c_str(), sizeof addr.sun_path - 1);
  while (std::chrono::steady_clock::now() < deadline && Running()) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    if (ok) return true;
    usleep(10000);
  }
  return false;
}

int DaemonProcess::OpenDescriptorCount() {
  const std::string path = "/proc/" + std::to_string(pid_) + "/fd";
  DIR* dir = opendir(path.c_str());
  if (dir == nullptr) return -1;
  int count = 0;
  while (dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count;
}

long DaemonProcess::ResidentKilobytes() {
  std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

int DaemonProcess::Stop() {
  if (pid_ <= 0) return status_;
  kill(pid_, SIGTERM);
  waitpid(pid_, &status_, 0);
  pid_ = -1;
  return status_;
}

ProcessResult RunProcess(const std::vector<std::string>& argv_in,
                         const std::vector<std::string>& environment) {
  int out_pipe[2], err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0 || pipe2(err_pipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe2 failed");
  }
  std::vector<std::string> env = ChildEnvironment(environment);
  std::vector<std::string> args = NativeCommand(argv_in);
  std::vector<char*> envp = ArgumentPointers(env);
  std::vector<char*> argv = ArgumentPointers(args);

  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    dup2(out_pipe[1], STDOUT_FILENO);
    dup2(err_pipe[1], STDERR_FILENO);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);

  ProcessResult result;
  pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open_count = 2;
  while (open_count > 0) {
    // A bound on a hung child keeps a broken test from hanging the suite.
    if (poll(fds, 2, 120000) == 0) {
      kill(pid, SIGKILL);
      break;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buffer[4096];
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
  for (pollfd& p : fds) {
    if (p.fd >= 0) close(p.fd);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  result.exit_code = ExitCode(status);
  return result;
}

}  // namespace tesk_test
