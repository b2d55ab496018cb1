// Writing frames: one at a time on the socket, bounded in time by the
// peer's progress, so a peer that stops reading cannot hold a writer.
#include <errno.h>
#include <string.h>

#include "connection.h"

namespace tarnsocket {
namespace {

// However slowly the peer reads, it must take at least this many bytes per
// millisecond (16 MiB/s) beyond the stall timeout.
constexpr uint64_t kMinBytesPerMs = uint64_t{16} * 1024;

}  // namespace

int Connection::Send(iovec* iov, int count, uint64_t bytes, bool* reading) {
  int rc;
  const uint64_t allowed_ms = peer_timeout_ms_ + bytes / kMinBytesPerMs;
  {
    std::unique_lock<std::mutex> lock(write_mutex_, std::try_to_lock);
    if (!lock.owns_lock()) {
      // Another writer may be waiting for the peer to read, and the peer
      // for us to read: never wait with the read side held.
      if (reading != nullptr && *reading) {
        *reading = false;
        GiveUpReadSide();
      }
      lock.lock();
    }
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(allowed_ms);
    const bool holding = reading != nullptr && *reading;
    rc = SendAll(fd_, &iov, &count, peer_timeout_ms_, deadline, holding);
    if (rc == -EAGAIN) {
      *reading = false;
      GiveUpReadSide();
      rc = SendAll(fd_, &iov, &count, peer_timeout_ms_, deadline, false);
    }
  }
  if (rc == -ETIMEDOUT) {
    CloseWithLog("peer took no data for %u ms", peer_timeout_ms_);
  } else if (rc == -ETIME) {
    CloseWithLog("peer did not take a frame of %llu bytes within %llu ms",
                 static_cast<unsigned long long>(bytes),
                 static_cast<unsigned long long>(allowed_ms));
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
      CloseWithLog("send failed: %d (%s)", -rc, strerror(-rc));  // NOLINT(concurrency-mt-unsafe)
    }
  }
  return rc;
}

void Connection::SendRelease(uint32_t handle, uint32_t count) {
  uint8_t head[sizeof(FrameHeader)];
  const size_t size = EncodeRelease(head, handle, count);
  iovec iov{head, size};
  Send(&iov, 1, size);
}

bool Connection::SendRefusal(const FrameHeader& call, int32_t result) {
  ObjectRef nulls[kMaxSlots] = {};
  uint8_t head[kMaxHeadSize];
  const unsigned out_objs = OBJECT_COUNTS_OUT_OBJS(call.counts);
  const size_t size = EncodeReply(head, call.call_id, result, out_objs, nulls);
  iovec iov{head, size};
  bool reading = true;
  Send(&iov, 1, size, &reading);
  return reading;
}

}  // namespace tarnsocket
