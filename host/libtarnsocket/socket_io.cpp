#include "socket_io.h"

#include <errno.h>
#include <sys/socket.h>

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

bool SetSocketTimeouts(int fd, uint32_t ms) {
  timeval tv{};
  tv.tv_sec = ms / 1000;
  tv.tv_usec = static_cast<suseconds_t>((ms % 1000) * 1000);
  return setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0;
}

int SendAll(int fd, iovec** iov, int* count, Clock::time_point deadline, bool dont_wait) {
  *iov = Advance(*iov, count, 0);
  while (*count > 0) {
    msghdr msg{};
    msg.msg_iov = *iov;
    msg.msg_iovlen = static_cast<size_t>(*count);
    const ssize_t sent = sendmsg(fd, &msg, MSG_NOSIGNAL | (dont_wait ? MSG_DONTWAIT : 0));
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return dont_wait ? -EAGAIN : -ETIMEDOUT;
      return -errno;
    }
    *iov = Advance(*iov, count, static_cast<size_t>(sent));
    // A peer that drains a byte now and then must not hold a writer forever.
    if (*count > 0 && Clock::now() > deadline) return -ETIMEDOUT;
  }
  return 0;
}

RecvStatus RecvAll(int fd, iovec* iov, int count) {
  bool started = false;
  iov = Advance(iov, &count, 0);
  while (count > 0) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = static_cast<size_t>(count);
    const ssize_t got = recvmsg(fd, &msg, MSG_WAITALL);
    if (got < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        return started ? RecvStatus::kStalled : RecvStatus::kIdle;
      }
      return RecvStatus::kError;
    }
    if (got == 0) return started ? RecvStatus::kTruncated : RecvStatus::kClosed;
    started = true;
    iov = Advance(iov, &count, static_cast<size_t>(got));
  }
  return RecvStatus::kOk;
}

}  // namespace tarnsocket
