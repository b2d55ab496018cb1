// A service does not wait long for a client: a call into a client's object
// that gets no answer in time fails, counts a strike and puts the client on
// probation, where its calls are no longer waited for. They still reach it,
// in order, one at a time: a worker sends each once the previous one is
// answered. An answer in time ends the probation; strikes close together,
// or calls piling up unanswered, end the connection. A process that was
// slow starts its next connections on probation for a while. A wait that
// the process's budget (wait_budget.h) cut short puts the client on
// probation too, but it earns a strike only if it then misses its own time.
#include <algorithm>

#include "connection.h"
#include "endpoint.h"
#include "log.h"
#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket {
namespace {

// Calls given up on whose late answers are still recognised.
constexpr size_t kMaxAbandoned = 256;
// What may wait for a client on probation before its connection ends.
constexpr size_t kMaxDeferredCalls = 64;
constexpr uint64_t kMaxDeferredBytes = uint64_t{4} << 20;
// Releases queued behind those calls: a peer makes one with every call that
// passes its own objects, as many as it likes while our calls wait.
constexpr size_t kMaxDeferredReleases = 4096;

}  // namespace

int32_t Connection::GiveUpWaiting(std::unique_lock<std::mutex>* lock, Waiter* self, bool cut,
                                  Clock::time_point due) {
  if (side_ == Side::kClient) {
    lock->unlock();
    CloseWithLog("no answer within %u ms", peer_timeout_ms_);
    return TARN_IPC_ERROR_TIMEOUT;
  }
  abandoned_.push_back(self->call_id);
  if (abandoned_.size() > kMaxAbandoned) abandoned_.pop_front();
  // Later calls wait for this answer before they go out.
  probation_ = true;
  outstanding_ = self->call_id;
  const Clock::time_point now = Clock::now();
  // An answer in the peer's own time still ends a probation the budget
  // caused; the monitor counts the strike if none comes.
  outstanding_due_ = cut ? due : now;
  unproven_ = cut;
  unproven_due_ns_.store(cut ? due.time_since_epoch().count() : 0);
  const size_t strikes = cut ? 0 : StrikeLocked(now);
  lock->unlock();
  if (cut) endpoint_->WantSweep();
  if (!cut) ReportStrike(strikes);
  return TARN_IPC_ERROR_TIMEOUT;
}

size_t Connection::StrikeLocked(Clock::time_point now) {
  endpoint_->slow_peers().Remember(peer_pid_);
  strikes_.push_back(now);
  while (now - strikes_.front() > std::chrono::milliseconds(kStrikeWindowMs)) strikes_.pop_front();
  return strikes_.size();
}

void Connection::ReportStrike(size_t strikes) {
  if (strikes >= limits_.callback_strikes) {
    CloseWithLog("%zu calls got no answer within %u ms", strikes, peer_timeout_ms_);
  } else {
    LogWarning(
        "Connection to pid %d: no answer within %u ms (%zu of %u strikes); not waited for "
        "until it answers in time",
        peer_pid_, peer_timeout_ms_, strikes, limits_.callback_strikes);
  }
}

int32_t Connection::Defer(uint32_t handle, uint32_t op, uint32_t counts, const uint64_t* sizes,
                          const ObjectRef* refs, const ObjectArg* args, uint8_t depth,
                          uint64_t body) {
  uint32_t call_id;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    call_id = next_call_id_++;
  }
  Deferred call;
  call.call_id = call_id;
  uint8_t head[kMaxHeadSize];
  const size_t head_size = EncodeInvokeHead(head, call_id, handle, op, counts, sizes, refs, depth);
  call.bytes.reserve(static_cast<size_t>(sizeof(FrameHeader) + body));
  call.bytes.assign(head, head + head_size);
  for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) {
    const uint8_t* data = static_cast<const uint8_t*>(args[i].b.ptr);
    call.bytes.insert(call.bytes.end(), data, data + sizes[i]);
  }
  bool full;
  bool start = false;
  size_t waiting;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return TARN_IPC_ERROR_DEAD;
    waiting = deferred_.size() + 1;
    full = waiting > kMaxDeferredCalls || deferred_bytes_ + call.bytes.size() > kMaxDeferredBytes;
    if (!full) {
      deferred_bytes_ += call.bytes.size();
      deferred_.push_back(std::move(call));
      start = !flushing_ && outstanding_ == 0;
      flushing_ = flushing_ || start;
    }
  }
  if (full) {
    CloseWithLog("%zu calls wait for answers that do not come", waiting);
    return TARN_IPC_ERROR_DEAD;
  }
  if (start) {
    std::shared_ptr<Connection> self = shared_from_this();
    endpoint_->Dispatch([self] { self->FlushDeferred(); });
  }
  return TARN_IPC_ERROR_TIMEOUT;
}

bool Connection::DeferReleaseLocked(const uint8_t* head, size_t size) {
  if (deferred_.size() >= kMaxDeferredCalls + kMaxDeferredReleases) return false;
  deferred_.push_back(Deferred{std::vector<uint8_t>(head, head + size), 0});
  deferred_bytes_ += size;
  return true;
}

void Connection::FlushDeferred() {
  for (;;) {
    Deferred call;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (closed_ || outstanding_ != 0 || deferred_.empty()) {
        flushing_ = false;
        return;
      }
      call = std::move(deferred_.front());
      deferred_.pop_front();
      deferred_bytes_ -= call.bytes.size();
      if (call.call_id != 0) {  // else a release, which has no answer
        outstanding_ = call.call_id;
        abandoned_.push_back(call.call_id);
        if (abandoned_.size() > kMaxAbandoned) abandoned_.pop_front();
        outstanding_due_ = After(peer_timeout_ms_ + call.bytes.size() / kMinBytesPerMs);
      }
    }
    iovec iov{call.bytes.data(), call.bytes.size()};
    if (Send(&iov, 1, call.bytes.size()) != 0) return;
  }
}

bool Connection::DiscardReplyLocked(const FrameHeader& header, const ObjectRef* refs,
                                    std::vector<Proxy*>* drop, bool* flush, size_t* strikes) {
  auto it = std::find(abandoned_.begin(), abandoned_.end(), header.call_id);
  if (it == abandoned_.end()) return false;
  abandoned_.erase(it);
  for (unsigned i = 0; i < header.counts; ++i) {
    if (refs[i].kind != kRefSenderExport) continue;
    Proxy*& proxy = imports_[refs[i].handle];
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the import table owns it
    if (proxy == nullptr) proxy = new Proxy{shared_from_this(), refs[i].handle, 0, 0};
    ++proxy->refs;
    ++proxy->received;
    drop->push_back(proxy);
  }
  if (header.call_id == outstanding_) {
    const Clock::time_point now = Clock::now();
    outstanding_ = 0;
    if (unproven_ && now > outstanding_due_) *strikes = StrikeLocked(now);
    unproven_ = false;
    unproven_due_ns_.store(0);
    if (deferred_.empty() && now <= outstanding_due_) probation_ = false;
    *flush = !deferred_.empty() && !flushing_ && !closed_;
    flushing_ = flushing_ || *flush;
  }
  return true;
}

bool Connection::SweepUnproven(Clock::time_point now) {
  const int64_t due = unproven_due_ns_.load();
  if (due == 0) return false;
  if (now.time_since_epoch().count() <= due) return true;
  size_t strikes = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (unproven_ && !closed_ && now > outstanding_due_) strikes = StrikeLocked(now);
    unproven_ = false;
    unproven_due_ns_.store(0);
  }
  if (strikes != 0) ReportStrike(strikes);
  return false;
}

}  // namespace tarnsocket
