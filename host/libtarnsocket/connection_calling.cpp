// Calling the peer's objects: send the call, read or wait for its answer,
// take the answer's objects.
#include <errno.h>

#include <algorithm>
#include <optional>

#include "connection.h"
#include "endpoint.h"
#include "tarnsocket/tarn_ipc.h"
#include "thread_context.h"
#include "wait_budget.h"

namespace tarnsocket {
namespace {

// Frames up to this size are sent while holding the read side: they fit in
// the socket buffer, so the sender cannot block on a peer that is itself
// blocked sending to us.
constexpr uint64_t kSmallFrame = uint64_t{32} * 1024;
// How long a waiting caller leaves a free read side to a worker that will
// take it back after serving a call.
constexpr std::chrono::milliseconds kLeaveToRetaker{1};

}  // namespace

int32_t Connection::Call(uint32_t handle, uint32_t op, ObjectArg* args, uint32_t counts) {
  if ((counts >> 16) != 0 || OBJECT_COUNTS_OUT_BUFS(counts) != 0) return OBJECT_ERROR_INVALID;
  const unsigned in_bufs = OBJECT_COUNTS_IN_BUFS(counts);
  const unsigned in_objs = OBJECT_COUNTS_IN_OBJS(counts);
  const unsigned out_objs = OBJECT_COUNTS_OUT_OBJS(counts);
  uint64_t sizes[kMaxSlots];
  uint64_t total = InvokeMetaSize(counts);
  for (unsigned i = 0; i < in_bufs; ++i) {
    sizes[i] = args[i].b.size;
    if (sizes[i] > kMaxBodySize - total) {
      // A service's peer would otherwise wait for a result that never comes.
      if (side_ == Side::kServer) {
        CloseWithLog("a call of more than %llu bytes cannot be sent",
                     static_cast<unsigned long long>(kMaxBodySize));
      }
      return OBJECT_ERROR_INVALID;
    }
    total += sizes[i];
  }
  const unsigned depth = CurrentCallDepth() + 1;
  if (depth > limits_.max_call_depth) {
    LogRefusal(&logged_depth_, "calls refused: nested %u deep, more than %u", depth,
               limits_.max_call_depth);
    return TARN_IPC_ERROR_TOO_DEEP;
  }
  bool defer;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return TARN_IPC_ERROR_DEAD;
    defer = probation_;
  }
  ObjectRef refs[kMaxSlots];
  for (unsigned i = 0; i < in_objs; ++i) {
    if (!Marshal(args[in_bufs + i].o, &refs[i])) {
      for (unsigned j = 0; j < i; ++j) Unmarshal(refs[j]);
      return TARN_IPC_ERROR_TOO_MANY_OBJECTS;
    }
  }
  if (defer) {
    for (unsigned i = 0; i < out_objs; ++i) args[in_bufs + in_objs + i].o = kNullObject;
    return Defer(handle, op, counts, sizes, refs, args, static_cast<uint8_t>(depth), total);
  }

  Waiter waiter;
  waiter.out_objs = out_objs;
  bool reading = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return TARN_IPC_ERROR_DEAD;
    waiter.call_id = next_call_id_++;
    waiters_.push_back(&waiter);
    // A worker that reads calls itself and calls back while serving one
    // does not wait for itself to take the read side back.
    if (retaking_ == this) ++waiting_retakers_;
    if (!reader_busy_ && !RetakerComingLocked() && total <= kSmallFrame) {
      TakeReadSideLocked();
      reading = true;
    }
  }
  uint8_t head[kMaxHeadSize];
  iovec iov[kMaxSlots + 1];
  iov[0] = iovec{head, EncodeInvokeHead(head, waiter.call_id, handle, op, counts, sizes, refs,
                                        static_cast<uint8_t>(depth))};
  int count = 1;
  for (unsigned i = 0; i < in_bufs; ++i) {
    if (sizes[i] > 0) iov[count++] = iovec{args[i].b.ptr, static_cast<size_t>(sizes[i])};
  }
  // A service's own threads wait on a client no longer than the process's
  // budget allows, unless that is as long as the client's own limit anyway.
  // A call made while serving one of the client's calls holds only a worker
  // that the client keeps busy itself, and the client waits for its result.
  const bool budgeted = side_ == Side::kServer && depth == 1;
  Clock::time_point start;
  Clock::time_point give_up = Clock::time_point::max();
  if (budgeted) {
    start = Clock::now();
    const Clock::duration left = WaitBudget::Instance().Left(start);
    if (left < std::chrono::milliseconds(peer_timeout_ms_)) give_up = start + left;
  }
  const uint64_t bytes = total + sizeof(FrameHeader);
  const int sent = Send(iov, count, bytes, &reading, give_up);
  if (sent == -EBUSY) {
    // Another writer, held up by this very client, kept the socket past
    // the budget: the call waits its turn in the background instead.
    {
      std::lock_guard<std::mutex> lock(mutex_);
      auto it = std::find(waiters_.begin(), waiters_.end(), &waiter);
      if (it != waiters_.end()) waiters_.erase(it);
      if (retaking_ == this) --waiting_retakers_;
      probation_ = true;
    }
    WaitBudget::Instance().Spend(start, true);
    for (unsigned i = 0; i < out_objs; ++i) args[in_bufs + in_objs + i].o = kNullObject;
    return Defer(handle, op, counts, sizes, refs, args, static_cast<uint8_t>(depth), total);
  }
  // The peer's own time: the answer after the whole frame is written.
  const Clock::time_point due =
      After(peer_timeout_ms_ + (sent == -EINPROGRESS ? bytes / kMinBytesPerMs : 0));
  waiter.deadline = std::min(due, give_up);

  std::unique_lock<std::mutex> lock(mutex_);
  waiter.writing = false;
  if (sent == 0) {
    if (reading) {
      lock.unlock();
      ReadLoop(&waiter);
      lock.lock();
    }
    // A free read side is left to a worker that will take it back after
    // serving, for a moment: its call may be waiting for this one.
    std::optional<Clock::time_point> leave_until;
    while (!waiter.done && !closed_) {
      const Clock::time_point now = Clock::now();
      if (!leave_until) leave_until = now + kLeaveToRetaker;
      if (now >= waiter.deadline) break;
      const bool leaving = RetakerComingLocked() && now < *leave_until;
      if (!reader_busy_ && !leaving) {
        TakeReadSideLocked();
        lock.unlock();
        ReadLoop(&waiter);
        lock.lock();
        continue;
      }
      const uint32_t seen = waiter.wake.Seen();
      lock.unlock();
      waiter.wake.Sleep(seen, leaving ? std::min(*leave_until, waiter.deadline) : waiter.deadline);
      lock.lock();
    }
  }
  if (retaking_ == this) --waiting_retakers_;
  const bool cut =
      !waiter.done && !closed_ && (sent == -EINPROGRESS || (sent == 0 && waiter.deadline < due));
  if (budgeted) WaitBudget::Instance().Spend(start, cut);
  if (!waiter.done) {
    auto it = std::find(waiters_.begin(), waiters_.end(), &waiter);
    if (it != waiters_.end()) waiters_.erase(it);
    // Someone must read on if this caller held the read side or was the one
    // that a reader handed it to.
    if (!reader_busy_) GiveUpReadSideLocked();
    if (sent == -ETIMEDOUT || sent == -ETIME) return TARN_IPC_ERROR_TIMEOUT;
    if ((sent != 0 && !cut) || closed_) return TARN_IPC_ERROR_DEAD;
    return GiveUpWaiting(&lock, &waiter, cut, due);
  }
  lock.unlock();
  for (unsigned i = 0; i < out_objs; ++i) args[in_bufs + in_objs + i].o = waiter.outs[i];
  return waiter.result;
}

bool Connection::HandleReply(const FrameHeader& header, const ObjectRef* refs, Waiter* self,
                             bool* mine) {
  const char* bad = nullptr;
  std::vector<Proxy*> drop;
  bool flush = false;
  size_t strikes = 0;
  std::atomic<uint32_t>* wake = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(waiters_.begin(), waiters_.end(),
                           [&](Waiter* w) { return w->call_id == header.call_id && !w->done; });
    // Check every handle before touching any table.
    for (unsigned i = 0; i < header.counts && bad == nullptr; ++i) {
      if (refs[i].kind != kRefReceiverExport) continue;
      ExportTable::Entry* entry = exports_.Get(refs[i].handle);
      if (entry == nullptr || entry->sent == 0) bad = "unknown handle passed back";
    }
    if (bad == nullptr && it == waiters_.end()) {
      if (!DiscardReplyLocked(header, refs, &drop, &flush, &strikes)) bad = "answer to no call";
    } else if (bad == nullptr && (*it)->out_objs != header.counts) {
      bad = "answer with the wrong number of objects";
    } else if (bad == nullptr) {
      Waiter* waiter = *it;
      for (unsigned i = 0; i < header.counts; ++i) {
        if (refs[i].kind == kRefNull) {
          waiter->outs[i] = kNullObject;
        } else if (refs[i].kind == kRefReceiverExport) {
          waiter->outs[i] = PassBackLocked(refs[i].handle);
        } else {
          Proxy*& proxy = imports_[refs[i].handle];
          // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the import table owns it
          if (proxy == nullptr) proxy = new Proxy{shared_from_this(), refs[i].handle, 0, 0};
          ++proxy->refs;
          ++proxy->received;
          waiter->outs[i] = ProxyObject(proxy);
        }
      }
      waiter->result = static_cast<int32_t>(header.code);
      waiter->done = true;
      waiters_.erase(it);
      *mine = waiter == self;
      if (!*mine) {
        waiter->wake.Bump();
        wake = waiter->wake.address();
      }
    }
  }
  // Woken once the lock is free; the waiter may be gone already.
  if (wake != nullptr) WakeWord::Wake(wake);
  for (Proxy* proxy : drop) ReleaseProxy(proxy);
  if (strikes != 0) ReportStrike(strikes);
  if (flush) {
    std::shared_ptr<Connection> self_ref = shared_from_this();
    endpoint_->Dispatch([self_ref] { self_ref->FlushDeferred(); });
  }
  if (bad == nullptr) return true;
  CloseWithLog("malformed frame: %s", bad);
  return false;
}

}  // namespace tarnsocket
