// Writing whole frames to a stream socket without ever waiting longer than
// the peer's progress allows, and waiting for bytes to read.
#ifndef TARNSOCKET_SOCKET_IO_H_
#define TARNSOCKET_SOCKET_IO_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include "clock.h"

namespace tarnsocket {

// How long a blocking recv may wait (SO_RCVTIMEO): a reader that lingers
// for the next frame, and a caller's first wait for its answer.
constexpr uint32_t kShortWaitMs = 20;

// Sets the socket's receive timeout to kShortWaitMs.
bool SetShortReceiveWait(int fd);

// Writes all of *iov, advancing *iov and *count past what was written.
// Returns 0; -ETIMEDOUT when the peer took no byte for stall_ms; -ETIME
// when the rest took longer than frame_ms from the first time the socket
// was full; -EINPROGRESS when give_up passed before either; with dont_wait,
// -EAGAIN as soon as the socket is full; or another -errno.
int SendAll(int fd, iovec** iov, int* count, uint32_t stall_ms, uint64_t frame_ms, bool dont_wait,
            Clock::time_point give_up = Clock::time_point::max());

// Waits until fd is readable, closed or failed, or until `until`; false on
// timeout.
bool WaitReadable(int fd, Clock::time_point until);

}  // namespace tarnsocket

#endif  // TARNSOCKET_SOCKET_IO_H_
