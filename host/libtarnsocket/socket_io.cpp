#include "socket_io.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>

namespace tarnsocket {
namespace {

// Skips n bytes already transferred; returns the new first entry.
iovec* Advance(iovec* iov, int* count, size_t n) {
  while (*count > 0 && n >= iov->iov_len) {
    n -= iov->iov_len;
    ++iov;
    --*count;
  }
  if (*count > 0) {
    iov->iov_base = static_cast<char*>(iov->iov_base) + n;
    iov->iov_len -= n;
  }
  return iov;
}

}  // namespace

bool SetShortReceiveWait(int fd) {
  timeval tv{};
  tv.tv_usec = static_cast<suseconds_t>(kShortWaitMs) * 1000;
  return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

int SendAll(int fd, iovec** iov, int* count, uint32_t stall_ms, uint64_t frame_ms, bool dont_wait,
            Clock::time_point give_up) {
  *iov = Advance(*iov, count, 0);
  // The clock is read only once the socket is full: most frames go out in
  // one call and need no deadline at all.
  std::optional<Clock::time_point> deadline, stall;
  while (*count > 0) {
    msghdr msg{};
    msg.msg_iov = *iov;
    msg.msg_iovlen = static_cast<size_t>(*count);
    const ssize_t sent = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0) {
      *iov = Advance(*iov, count, static_cast<size_t>(sent));
      stall.reset();
      continue;
    }
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -errno;
    if (dont_wait) return -EAGAIN;
    const Clock::time_point now = Clock::now();
    if (!deadline) deadline = now + std::chrono::milliseconds(frame_ms);
    if (!stall) stall = now + std::chrono::milliseconds(stall_ms);
    const Clock::time_point until = std::min({*stall, *deadline, give_up});
    pollfd pfd{fd, POLLOUT, 0};
    const int ready = poll(&pfd, 1, MillisecondsUntil(until));
    if (ready < 0 && errno != EINTR) return -errno;
    if (ready == 0 && Clock::now() >= until) {
      return until == give_up ? -EINPROGRESS : until == *stall ? -ETIMEDOUT : -ETIME;
    }
  }
  return 0;
}

bool WaitReadable(int fd, Clock::time_point until) {
  for (;;) {
    pollfd pfd{fd, POLLIN, 0};
    const int ready = poll(&pfd, 1, MillisecondsUntil(until));
    if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
    if (Clock::now() >= until) return false;
  }
}

}  // namespace tarnsocket
