// Test support: runs the real daemon binary as init would, in a process of
// its own, and watches what it logs.
#ifndef TESK_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define TESK_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"

namespace tesk_test {

class DaemonProcess {
 public:
  struct Options {
    std::string program;  // defaults to the built daemon
    // Extra environment, "NAME=value"; the rest is inherited.
    std::vector<std::string> environment;
    bool provide_socket = true;  // false: no ANDROID_SOCKET_tesk at all
    int socket_type = SOCK_STREAM;
    std::string log_levels = "tesk=2";  // KY_LOG_LEVEL of the daemon
  };

  explicit DaemonProcess(Options options);
  DaemonProcess() : DaemonProcess(Options{}) {}
  ~DaemonProcess();  // SIGKILL, reap, remove the socket folder
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& socket_path() const { return socket_path_; }

  // True once the daemon's stderr holds `text` (waits up to `timeout`).
  bool WaitForLog(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10));
  // Everything the daemon wrote to stderr so far.
  std::string Log();
  // Number of times `text` occurs in the log so far.
  size_t CountInLog(const std::string& text);

  // True while the process has not ended.
  bool Running();
  // Connects repeatedly until the daemon accepts (it listens only once
  // serving). False if it never does within `timeout`.
  bool WaitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(10));

  // Resource figures read from /proc, for leak checks.
  int OpenDescriptorCount();
  long ResidentKilobytes();

  // Sends SIGTERM and waits for the end; returns the wait status.
  int Stop();

 private:
  void ReadLog(int fd);

  TempDir dir_;
  std::string socket_path_;
  pid_t pid_ = -1;
  int status_ = 0;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string log_;
};

// Path of a binary or library built in the same tree as the tests.
std::string BuiltBinary(const std::string& name);
std::string BuiltLibrary(const std::string& file_name);

// A path that other programs (a shell, hostinit) can start `binary` by: the
// binary itself, or under an emulator a script that runs it there.
std::string NativeProgram(const std::string& binary);

// Runs a program to its end with extra environment; collects its output.
struct ProcessResult {
  int exit_code = -1;  // 128 + signal when killed
  std::string out;
  std::string err;
};
ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& environment = {});

}  // namespace tesk_test

#endif  // TESK_TESTS_SUPPORT_DAEMON_PROCESS_H_
