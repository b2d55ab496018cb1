// Hands a delivery from the IPC library's thread to the main thread, and
// turns SIGINT/SIGTERM into a wake-up of that same wait. Deliveries write one
// byte into a self-pipe; the signals are read from a signalfd. No signal
// handler runs at all, so a signal can neither be lost to a library thread
// nor interrupt one.
#ifndef TESK_TOOLS_TESKCTL_RESULT_WAITER_H_
#define TESK_TOOLS_TESKCTL_RESULT_WAITER_H_

#include <signal.h>

// SIGINT and SIGTERM. teskctl blocks them first thing in main, before the IPC
// library starts any thread, and every thread inherits that mask; a waiter
// then takes them through its signalfd.
const sigset_t& StopSignals();

class ResultWaiter {
 public:
  enum class Outcome { kDelivered, kTimedOut, kInterrupted, kFailed };

  ResultWaiter();
  ~ResultWaiter();
  ResultWaiter(const ResultWaiter&) = delete;
  ResultWaiter& operator=(const ResultWaiter&) = delete;

  bool ok() const { return read_fd_ >= 0 && signal_fd_ >= 0; }

  // Any thread: a delivery is ready.
  void Notify();

  // Main thread: waits for a delivery or a signal for at most timeout_ms.
  // A signal wins over a delivery that arrived at the same time.
  Outcome Wait(int timeout_ms);

 private:
  int read_fd_ = -1;
  int write_fd_ = -1;
  int signal_fd_ = -1;
};

#endif  // TESK_TOOLS_TESKCTL_RESULT_WAITER_H_
