// Hands a delivery from the IPC library's thread to the main thread, and
// turns SIGINT/SIGTERM into a wake-up of that same wait: both write one
// byte into a self-pipe that the main thread polls.
#ifndef TESK_TOOLS_TESKCTL_RESULT_WAITER_H_
#define TESK_TOOLS_TESKCTL_RESULT_WAITER_H_

#include <signal.h>

class ResultWaiter {
 public:
  enum class Outcome { kDelivered, kTimedOut, kInterrupted, kFailed };

  // Installs the SIGINT/SIGTERM handlers; they stay until destruction.
  ResultWaiter();
  ~ResultWaiter();
  ResultWaiter(const ResultWaiter&) = delete;
  ResultWaiter& operator=(const ResultWaiter&) = delete;

  bool ok() const { return read_fd_ >= 0; }

  // Any thread: a delivery is ready.
  void Notify();

  // Main thread: waits for a delivery or a signal for at most timeout_ms.
  // A signal wins over a delivery that arrived at the same time.
  Outcome Wait(int timeout_ms);

 private:
  int read_fd_ = -1;
  int write_fd_ = -1;
  struct sigaction old_int_ {};
  struct sigaction old_term_ {};
};

#endif  // TESK_TOOLS_TESKCTL_RESULT_WAITER_H_
