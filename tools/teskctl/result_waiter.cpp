#include "result_waiter.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <system_error>

const sigset_t& StopSignals() {
  static const sigset_t signals = [] {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
  }();
  return signals;
}

ResultWaiter::ResultWaiter() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    fprintf(stderr, "teskctl: pipe failed: %s\n", std::generic_category().message(errno).c_str());
    return;
  }
  read_fd_ = fds[0];
  write_fd_ = fds[1];
  signal_fd_ = signalfd(-1, &StopSignals(), SFD_CLOEXEC | SFD_NONBLOCK);
  if (signal_fd_ < 0) {
    fprintf(stderr, "teskctl: signalfd failed: %s\n",
            std::generic_category().message(errno).c_str());
  }
}

ResultWaiter::~ResultWaiter() {
  for (int fd : {read_fd_, write_fd_, signal_fd_}) {
    if (fd >= 0) close(fd);
  }
}

void ResultWaiter::Notify() {
  const char byte = 'R';
  // A full pipe already holds a wake-up; losing this byte loses nothing.
  (void)!write(write_fd_, &byte, 1);
}

ResultWaiter::Outcome ResultWaiter::Wait(int timeout_ms) {
  if (!ok()) return Outcome::kFailed;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    signalfd_siginfo info;
    if (read(signal_fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      return Outcome::kInterrupted;
    }
    char bytes[16];
    if (read(read_fd_, bytes, sizeof bytes) > 0) {
      // A signal that came with the delivery still wins.
      if (read(signal_fd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        return Outcome::kInterrupted;
      }
      return Outcome::kDelivered;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return Outcome::kTimedOut;
    pollfd fds[2] = {{signal_fd_, POLLIN, 0}, {read_fd_, POLLIN, 0}};
    if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) {
      return Outcome::kFailed;
    }
  }
}
