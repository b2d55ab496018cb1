// Whole-frame reads and writes on a blocking stream socket whose
// SO_RCVTIMEO and SO_SNDTIMEO bound every wait.
#ifndef TARNSOCKET_SOCKET_IO_H_
#define TARNSOCKET_SOCKET_IO_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <chrono>

namespace tarnsocket {

using Clock = std::chrono::steady_clock;

// Sets both socket timeouts to ms.
bool SetSocketTimeouts(int fd, uint32_t ms);

// Writes all of *iov, advancing *iov and *count past what was written. 0,
// or -ETIMEDOUT when the peer took no bytes in time or the deadline passed,
// or another -errno. With dont_wait, -EAGAIN as soon as the socket is full.
int SendAll(int fd, iovec** iov, int* count, Clock::time_point deadline, bool dont_wait);

enum class RecvStatus {
  kOk,
  kClosed,     // orderly end of stream before the first byte
  kIdle,       // the socket timeout passed before the first byte
  kStalled,    // the socket timeout passed in the middle
  kTruncated,  // end of stream in the middle
  kError,      // errno says why
};

// Fills all of iov (modified on the way).
RecvStatus RecvAll(int fd, iovec* iov, int count);

}  // namespace tarnsocket

#endif  // TARNSOCKET_SOCKET_IO_H_
