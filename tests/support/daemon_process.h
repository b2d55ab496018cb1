// Test support: runs the real daemon binary as init would, in a process of
// its own, and reads what it logs; runs other programs to their end.
#ifndef TESK_TESTS_SUPPORT_DAEMON_PROCESS_H_
#define TESK_TESTS_SUPPORT_DAEMON_PROCESS_H_

#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace tesk_test {

class DaemonProcess {
 public:
  struct Options {
    std::string program;  // defaults to the built daemon
    // Extra environment, "NAME=value" (a bare NAME unsets it); the rest is inherited.
    std::vector<std::string> environment;
    int socket_type = SOCK_STREAM;      // 0: no ANDROID_SOCKET_tesk at all
    std::string log_levels = "tesk=2";  // KY_LOG_LEVEL of the daemon
  };

  explicit DaemonProcess(Options options);
  DaemonProcess() : DaemonProcess(Options{}) {}
  ~DaemonProcess();  // SIGKILL, reap, remove the socket folder
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& socket_path() const { return socket_path_; }

  // Everything the daemon wrote to stderr so far.
  std::string Log() const;
  // True once the log holds `text` (waits up to `timeout`).
  bool WaitForLog(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
  size_t CountInLog(const std::string& text) const;

  // True while the process has not ended.
  bool Running();
  // True once the daemon says it serves (it listens by then; its log level
  // for "tesk" must be 1 or more).
  bool WaitUntilServing(std::chrono::milliseconds timeout = std::chrono::seconds(10)) const {
    return WaitForLog("tesk: Serving TESK interface", timeout);
  }

  // Resource figures read from /proc, for leak checks: the open descriptors,
  // and a number from /proc/PID/status ("VmRSS:" in KiB, "Threads:"), -1 if none.
  int OpenDescriptorCount() const;
  long Status(const std::string& field) const;

 private:
  TempDir dir_;
  std::string socket_path_;
  pid_t pid_ = -1;
};

// Path of a binary built in the same tree as the tests ("../lib/NAME" for a library).
std::string BuiltBinary(const std::string& name);

// The whole content of a file ("" when there is none).
std::string ReadFile(const std::string& path);

// Starts a program with extra environment (as in Options), stdin from
// /dev/null, stdout and stderr to the files named; -1 when it cannot start.
pid_t StartProcess(const std::vector<std::string>& argv,
                   const std::vector<std::string>& environment = {},
                   const std::string& out = "/dev/null", const std::string& err = "/dev/null");
// Reaps it: its exit code, 128 + signal when killed, 127 when it never started.
int AwaitExit(pid_t pid);

// Runs a program to its end (as above); collects its output.
struct ProcessResult {
  int exit_code = -1;  // as AwaitExit's
  std::string out;
  std::string err;
};
ProcessResult RunProcess(const std::vector<std::string>& argv,
                         const std::vector<std::string>& environment = {});

}  // namespace tesk_test

#endif  // TESK_TESTS_SUPPORT_DAEMON_PROCESS_H_
