// Writing frames: one at a time on the socket, bounded in time by the
// peer's progress, so a peer that stops reading cannot hold a writer.
#include <errno.h>
#include <string.h>

#include <memory>

#include "connection.h"
#include "endpoint.h"

namespace tarnsocket {

int Connection::Send(iovec* iov, int count, uint64_t bytes, bool* reading,
                     Clock::time_point give_up) {
  std::unique_lock<std::timed_mutex> lock(write_mutex_, std::try_to_lock);
  if (!lock.owns_lock()) {
    // Another writer may be waiting for the peer to read, and the peer
    // for us to read: never wait with the read side held.
    if (reading != nullptr && *reading) {
      *reading = false;
      GiveUpReadSide();
    }
    if (give_up == Clock::time_point::max()) {
      lock.lock();
    } else if (!lock.try_lock_until(give_up)) {
      return -EBUSY;
    }
  }
  return WriteLocked(&lock, iov, count, bytes, reading, give_up);
}

int Connection::WriteLocked(std::unique_lock<std::timed_mutex>* lock, iovec* iov, int count,
                            uint64_t bytes, bool* reading, Clock::time_point give_up) {
  iovec all[kMaxSlots + 3];
  iovec* next = all;
  int left = 0;
  if (!unsent_.empty()) all[left++] = iovec{unsent_.data(), unsent_.size()};
  // Releases waiting for a frame to ride on go first: they are older.
  std::vector<uint8_t> releases;
  if (releases_queued_.load()) {
    std::lock_guard<std::mutex> queued(releases_mutex_);
    releases.swap(queued_releases_);
    releases_queued_.store(false);
  }
  if (!releases.empty()) all[left++] = iovec{releases.data(), releases.size()};
  for (int i = 0; i < count; ++i) all[left++] = iov[i];
  bytes += unsent_.size() + releases.size();
  const uint64_t allowed_ms = peer_timeout_ms_ + bytes / kMinBytesPerMs;
  const bool holding = reading != nullptr && *reading;
  int rc = SendAll(fd_, &next, &left, peer_timeout_ms_, allowed_ms, holding, give_up);
  if (rc == -EAGAIN) {
    *reading = false;
    GiveUpReadSide();
    rc = SendAll(fd_, &next, &left, peer_timeout_ms_, allowed_ms, false, give_up);
  }
  std::vector<uint8_t> rest;
  if (rc == -EINPROGRESS) {
    for (int i = 0; i < left; ++i) {
      const auto* from = static_cast<const uint8_t*>(next[i].iov_base);
      rest.insert(rest.end(), from, from + next[i].iov_len);
    }
  }
  unsent_.swap(rest);
  lock->unlock();
  if (rc == -EINPROGRESS) {
    std::shared_ptr<Connection> self = shared_from_this();
    endpoint_->Dispatch([self] { self->Send(nullptr, 0, 0); });
    return rc;
  }
  if (releases_queued_.load() && !endpoint_->Ticking()) SendQueuedReleases();
  if (rc == -ETIMEDOUT) {
    CloseWithLog("peer took no data for %u ms", peer_timeout_ms_);
  } else if (rc == -ETIME) {
    CloseWithLog("peer did not take a frame of %llu bytes within %llu ms",
                 static_cast<unsigned long long>(bytes),
                 static_cast<unsigned long long>(allowed_ms));
  } else if (rc != 0) {
    bool quiet;
    {
      std::lock_guard<std::mutex> state(mutex_);
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
  size_t waiting = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // Calls still to go out may be calls of this very object: the release
    // goes after them.
    if (flushing_ || !deferred_.empty()) {
      if (DeferReleaseLocked(head, size)) return;
      waiting = deferred_.size();
    }
  }
  if (waiting != 0) {
    CloseWithLog("%zu frames wait behind calls that get no answer", waiting);
    return;
  }
  {
    std::lock_guard<std::mutex> lock(releases_mutex_);
    queued_releases_.insert(queued_releases_.end(), head, head + size);
    releases_queued_.store(true);
  }
  // While calls come and go, a release rides on the next frame, or the
  // monitor's next tick sends it: alone it would wake the peer for nothing.
  if (endpoint_->Ticking()) return;
  SendQueuedReleases();
}

void Connection::SendQueuedReleases() {
  // A writer that fails to take the socket here has queued its frames
  // before; the holder looks again after letting go, and sees them.
  while (releases_queued_.load()) {
    std::unique_lock<std::timed_mutex> lock(write_mutex_, std::try_to_lock);
    // With part of a frame unsent, the worker that sends the rest sends
    // these after it.
    if (!lock.owns_lock() || !unsent_.empty()) return;
    // Nothing but the queued releases, written without waiting (give up at
    // once, the epoch being long past): what the socket does not take now a
    // worker sends.
    if (WriteLocked(&lock, nullptr, 0, 0, nullptr, Clock::time_point()) != 0) return;
  }
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
