// Fixtures shared by the IPC tests: a served Harness on a real socket, a
// child peer process, captured stderr and raw frame writing.
#ifndef TESK_TESTS_IPC_IPC_TEST_SUPPORT_H_
#define TESK_TESTS_IPC_IPC_TEST_SUPPORT_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "harness.h"
#include "service/object.h"

namespace ipc_test {

// A bound Unix stream socket in a fresh directory, served with a Harness.
class ServedHarness {
 public:
  ServedHarness();
  ~ServedHarness();
  const std::string& path() const { return path_; }
  Harness& harness() { return harness_; }
  void* service() const { return service_; }
  Object Connect();  // fails the test if it cannot
  // A raw connected socket, for speaking the protocol by hand.
  int RawConnect();

 private:
  Harness harness_;
  std::string dir_;
  std::string path_;
  int fd_ = -1;
  void* service_ = nullptr;
};

// ipc_test_peer running in its own process, stdout piped to us.
class PeerProcess {
 public:
  PeerProcess(const char* mode, const std::string& socket_path);
  ~PeerProcess();
  // Reads one line from the peer's stdout ("" at end of stream).
  std::string ReadLine();
  void Kill();
  int Wait();  // exit status, or 128 + signal

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  bool reaped_ = false;
  int status_ = 0;
};

// Collects everything written to fd 2 while alive.
class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture();
  std::string Text();  // all so far

 private:
  int saved_ = -1;
  std::string file_;
};

int32_t CallObject(Object target, uint32_t op, ObjectArg* args, uint32_t counts);

}  // namespace ipc_test

#endif  // TESK_TESTS_IPC_IPC_TEST_SUPPORT_H_
