#include "tools/teskctl/result_waiter.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kDeliveredByte = 'R';
constexpr char kSignalByte = 'S';

// The handler may only touch this and call write(2).
volatile sig_atomic_t g_signal_fd = -1;

void OnSignal(int /*signo*/) {
  const int saved_errno = errno;
  const int fd = g_signal_fd;
  if (fd >= 0) {
    const char byte = kSignalByte;
    (void)!write(fd, &byte, 1);
  }
  errno = saved_errno;
}

}  // namespace

ResultWaiter::ResultWaiter() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
    fprintf(stderr, "teskctl: pipe failed: %s\n", strerror(errno));
    return;
  }
  read_fd_ = fds[0];
  write_fd_ = fds[1];
  g_signal_fd = write_fd_;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, &old_int_);
  sigaction(SIGTERM, &action, &old_term_);
}

ResultWaiter::~ResultWaiter() {
  if (read_fd_ < 0) return;
  sigaction(SIGINT, &old_int_, nullptr);
  sigaction(SIGTERM, &old_term_, nullptr);
  g_signal_fd = -1;
  close(read_fd_);
  close(write_fd_);
}

void ResultWaiter::Notify() {
  const char byte = kDeliveredByte;
  // A full pipe already holds a wake-up; losing this byte loses nothing.
  (void)!write(write_fd_, &byte, 1);
}

ResultWaiter::Outcome ResultWaiter::Wait(int timeout_ms) {
  if (read_fd_ < 0) return Outcome::kFailed;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    char bytes[16];
    const ssize_t n = read(read_fd_, bytes, sizeof bytes);
    if (n > 0) {
      if (memchr(bytes, kSignalByte, static_cast<size_t>(n)) != nullptr) {
        return Outcome::kInterrupted;
      }
      // Drain the rest so that a signal right behind the delivery is seen.
      char more[16];
      ssize_t m;
      while ((m = read(read_fd_, more, sizeof more)) > 0) {
        if (memchr(more, kSignalByte, static_cast<size_t>(m)) != nullptr) {
          return Outcome::kInterrupted;
        }
      }
      return Outcome::kDelivered;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return Outcome::kTimedOut;
    struct pollfd pfd {
      read_fd_, POLLIN, 0
    };
    const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) return Outcome::kFailed;
  }
}
