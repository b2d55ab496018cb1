// Who reads the socket: one thread at a time holds the read side, and the
// endpoint's monitor watches the socket while nobody does. While a worker
// serves a call it read, the socket may stay unwatched for a moment: the
// worker usually takes the read side back sooner, which saves arming and
// muting the watch around every call.
#include <algorithm>
#include <memory>

#include "connection.h"
#include "endpoint.h"

namespace tarnsocket {
namespace {

int64_t Nanoseconds(Clock::time_point when) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
}

}  // namespace

bool Connection::NeedsWatchLocked() const {
  // A client that exported nothing can only receive answers, and those are
  // read by their callers.
  return side_ == Side::kServer || !exports_.empty();
}

void Connection::ArmLocked() {
  unwatched_since_ns_.store(0);
  if (armed_ || closed_) return;
  armed_ = true;
  endpoint_->Watch(fd_, id_);
}

void Connection::TakeReadSideLocked() {
  reader_busy_ = true;
  if (unwatched_since_ns_.load() != 0) {
    unwatched_since_ns_.store(0);
  } else if (armed_) {
    armed_ = false;
    endpoint_->Mute(fd_, id_);
  }
}

bool Connection::RetakerComingLocked() const {
  return retakers_ > waiting_retakers_;
}

void Connection::WakeWaitersLocked() {
  // Only callers still waiting are listed: an answered one is taken out.
  for (Waiter* waiter : waiters_) {
    waiter->wake.Bump();
    waiter->wake.Wake();
  }
}

bool Connection::PendingWaitersLocked() const {
  return std::any_of(waiters_.begin(), waiters_.end(),
                     [](Waiter* w) { return !w->done && !w->writing; });
}

void Connection::GiveUpReadSideLocked(bool unwatched) {
  reader_busy_ = false;
  if (closed_) return;
  // Waiting callers read on themselves, unless a worker serving a call will
  // take the read side back soon.
  const bool pending = PendingWaitersLocked() && !RetakerComingLocked();
  if (!pending && reader_.Assemble() != FrameReader::Result::kAgain) {
    // A frame already read waits for a reader; the socket may never wake
    // the monitor for it.
    reader_busy_ = true;
    std::shared_ptr<Connection> self = shared_from_this();
    endpoint_->Dispatch([self] { self->ServeAsReader(); });
    return;
  }
  if (pending) {
    WakeWaitersLocked();
    return;
  }
  if (!NeedsWatchLocked()) return;
  // A frame left half read is the monitor's to time out.
  if (reader_.InFrame()) endpoint_->WantSweep();
  if (unwatched) {
    const int64_t now = Nanoseconds(Clock::now());
    unwatched_since_ns_.store(now);
    // The monitor looks at unwatched sockets only while it ticks.
    if (endpoint_->NoteCall(now)) return;
  }
  ArmLocked();
}

void Connection::GiveUpReadSide(bool unwatched) {
  std::lock_guard<std::mutex> lock(mutex_);
  GiveUpReadSideLocked(unwatched);
}

bool Connection::RetakeReadSide() {
  // A worker that lingers on a quiet socket does so briefly (the socket's
  // receive timeout); work that arrives meanwhile gets a worker of its own.
  std::lock_guard<std::mutex> lock(mutex_);
  --retakers_;
  return TakeFreeReadSideLocked();
}

bool Connection::TakeFreeReadSide() {
  std::lock_guard<std::mutex> lock(mutex_);
  return TakeFreeReadSideLocked();
}

bool Connection::TakeFreeReadSideLocked() {
  if (closed_ || reader_busy_) return false;
  if (!NeedsWatchLocked() && !PendingWaitersLocked()) return false;
  TakeReadSideLocked();
  return true;
}

bool Connection::ReadForMonitor() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    armed_ = false;  // the event disabled the watch
    if (closed_ || reader_busy_) return false;
    TakeReadSideLocked();
  }
  switch (reader_.Read(fd_, Clock::time_point(), false)) {
    case FrameReader::Result::kFrame:
      return true;
    case FrameReader::Result::kAgain:
      GiveUpReadSide();
      return false;
    case FrameReader::Result::kEnded:
      Close(nullptr);
      return false;
    case FrameReader::Result::kFailed:
      if (reader_.why() != nullptr) {
        CloseWithLog("%s", reader_.why());
      } else {
        Close(nullptr);
      }
      return false;
  }
  return false;
}

bool Connection::Sweep(Clock::time_point now, bool ticking) {
  const int64_t since = unwatched_since_ns_.load();
  if (since != 0 &&
      (!ticking || Nanoseconds(now) - since >= std::chrono::nanoseconds(kUnwatchedGrace).count())) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (unwatched_since_ns_.load() != 0 && !reader_busy_) ArmLocked();
  }
  // Releases that found no frame to ride on since the last tick.
  if (releases_queued_.load()) SendQueuedReleases();
  const bool unproven = SweepUnproven(now);
  if (!reader_.InFrame()) return unproven;
  if (reader_.Overdue(now)) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      // Whoever holds the read side sees the deadline itself.
      if (closed_ || reader_busy_) return true;
      reader_busy_ = true;
    }
    CloseWithLog("frame not whole within %u ms", limits_.frame_timeout_ms);
    return false;
  }
  return true;
}

void Connection::ServeAsReader() {
  ReadLoop(nullptr);
}

}  // namespace tarnsocket
