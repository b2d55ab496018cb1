// Writing frames: one at a time on the socket, bounded in time.
#include <errno.h>
#include <string.h>

#include "connection.h"

namespace tarnsocket {

int Connection::Send(iovec* iov, int count, bool* reading) {
  int rc;
  {
    std::lock_guard<std::mutex> lock(write_mutex_);
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
    const bool holding = reading != nullptr && *reading;
    rc = SendAll(fd_, &iov, &count, deadline, holding);
    if (rc == -EAGAIN) {
      *reading = false;
      GiveUpReadSide();
      rc = SendAll(fd_, &iov, &count, deadline, false);
    }
  }
  if (rc == -ETIMEDOUT) {
    CloseWithLog("peer took no data for %u ms", timeout_ms_);
  } else if (rc != 0) {
    bool quiet;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      quiet = closed_;
    }
    // A peer that went away is not news; anything else is.
    if (quiet || rc == -EPIPE || rc == -ECONNRESET) {
      Close(nullptr);
    } else {
      CloseWithLog("send failed: %d (%s)", -rc, strerror(-rc));
    }
  }
  return rc;
}

void Connection::SendRelease(uint32_t handle, uint32_t count) {
  uint8_t head[sizeof(FrameHeader)];
  iovec iov{head, EncodeRelease(head, handle, count)};
  Send(&iov, 1);
}

}  // namespace tarnsocket
