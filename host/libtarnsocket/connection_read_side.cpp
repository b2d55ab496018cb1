// Who reads the socket: one thread at a time holds the read side, and
// the endpoint's monitor watches the socket while nobody does.
#include <algorithm>
#include <memory>

#include "connection.h"
#include "endpoint.h"

namespace tarnsocket {

bool Connection::NeedsWatchLocked() const {
  // A client that exported nothing can only receive answers, and those are
  // read by their callers.
  return side_ == Side::kServer || !exports_.empty();
}

void Connection::ArmLocked() {
  if (armed_ || closed_) return;
  armed_ = true;
  endpoint_->Watch(fd_, id_);
}

void Connection::DisarmLocked() {
  if (!armed_) return;
  armed_ = false;
  endpoint_->Mute(fd_, id_);
}

bool Connection::PendingWaitersLocked() const {
  return std::any_of(waiters_.begin(), waiters_.end(), [](Waiter* w) { return !w->done; });
}

void Connection::GiveUpReadSideLocked() {
  reader_busy_ = false;
  if (closed_) return;
  if (in_end_ > in_begin_ && !PendingWaitersLocked()) {
    // Bytes already read wait for a reader; the socket may never wake the
    // monitor for them.
    reader_busy_ = true;
    DisarmLocked();
    std::shared_ptr<Connection> self = shared_from_this();
    endpoint_->Dispatch([self] { self->ServeAsReader(); });
    return;
  }
  bool pending = false;
  for (Waiter* waiter : waiters_) {
    if (!waiter->done) {
      pending = true;
      waiter->cv.notify_all();
    }
  }
  if (!pending && NeedsWatchLocked()) ArmLocked();
}

void Connection::GiveUpReadSide() {
  std::lock_guard<std::mutex> lock(mutex_);
  GiveUpReadSideLocked();
}

bool Connection::RetakeReadSide() {
  // A worker that waits on a quiet socket is not free for other
  // connections: with work queued, leave the socket to the monitor.
  if (endpoint_->Saturated()) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  if (closed_ || reader_busy_) return false;
  if (!NeedsWatchLocked() && !PendingWaitersLocked()) return false;
  reader_busy_ = true;
  DisarmLocked();
  return true;
}

bool Connection::ClaimReadSide() {
  std::lock_guard<std::mutex> lock(mutex_);
  armed_ = false;  // the event disabled the watch
  if (closed_ || reader_busy_) return false;
  reader_busy_ = true;
  return true;
}

void Connection::ServeAsReader() {
  ReadLoop(nullptr);
}

}  // namespace tarnsocket
