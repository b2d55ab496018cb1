// Calling the peer's objects: send the call, read or wait for its answer,
// take the answer's objects.
#include <errno.h>

#include <algorithm>

#include "connection.h"
#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket {
namespace {

// Frames up to this size are sent while holding the read side: they fit in
// the socket buffer, so the sender cannot block on a peer that is itself
// blocked sending to us.
constexpr uint64_t kSmallFrame = uint64_t{32} * 1024;

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
    if (sizes[i] > kMaxBodySize - total) return OBJECT_ERROR_INVALID;
    total += sizes[i];
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return TARN_IPC_ERROR_DEAD;
  }
  ObjectRef refs[kMaxSlots];
  for (unsigned i = 0; i < in_objs; ++i) refs[i] = Marshal(args[in_bufs + i].o);

  Waiter waiter;
  waiter.out_objs = out_objs;
  waiter.deadline = Clock::now() + std::chrono::milliseconds(timeout_ms_);
  bool reading = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return TARN_IPC_ERROR_DEAD;
    waiter.call_id = next_call_id_++;
    waiters_.push_back(&waiter);
    if (!reader_busy_ && total <= kSmallFrame) {
      reader_busy_ = true;
      DisarmLocked();
      reading = true;
    }
  }
  uint8_t head[kMaxHeadSize];
  iovec iov[kMaxSlots + 1];
  iov[0] = iovec{head, EncodeInvokeHead(head, waiter.call_id, handle, op, counts, sizes, refs)};
  int count = 1;
  for (unsigned i = 0; i < in_bufs; ++i) {
    if (sizes[i] > 0) iov[count++] = iovec{args[i].b.ptr, sizes[i]};
  }
  const int sent = Send(iov, count, &reading);

  std::unique_lock<std::mutex> lock(mutex_);
  if (sent != 0) {
    waiter.timed_out = sent == -ETIMEDOUT;
  } else {
    if (reading) {
      lock.unlock();
      ReadLoop(&waiter);
      lock.lock();
    }
    while (!waiter.done && !closed_) {
      if (!reader_busy_) {
        reader_busy_ = true;
        DisarmLocked();
        lock.unlock();
        ReadLoop(&waiter);
        lock.lock();
        continue;
      }
      if (waiter.cv.wait_until(lock, waiter.deadline) == std::cv_status::timeout && !waiter.done &&
          !closed_) {
        waiter.timed_out = true;
        lock.unlock();
        CloseWithLog("no answer within %u ms", timeout_ms_);
        lock.lock();
      }
    }
  }
  if (reading && sent != 0) GiveUpReadSideLocked();
  auto it = std::find(waiters_.begin(), waiters_.end(), &waiter);
  if (it != waiters_.end()) waiters_.erase(it);
  if (!waiter.done) return waiter.timed_out ? TARN_IPC_ERROR_TIMEOUT : TARN_IPC_ERROR_DEAD;
  lock.unlock();
  for (unsigned i = 0; i < out_objs; ++i) {
    if (waiter.pinned[i]) {
      // Our own object came back: the caller gets a reference of its own.
      ObjectRetain(waiter.outs[i]);
      Unpin(waiter.pinned_handles[i]);
    }
    args[in_bufs + in_objs + i].o = waiter.outs[i];
  }
  return waiter.result;
}

bool Connection::HandleReply(const FrameHeader& header, Waiter* self, bool* mine) {
  uint8_t body[kMaxSlots * sizeof(ObjectRef)];
  if (header.body_size > 0) {
    iovec iov{body, header.body_size};
    if (Fill(&iov, 1) != RecvStatus::kOk) {
      CloseWithLog("peer stopped in the middle of a frame");
      return false;
    }
  }
  ObjectRef refs[kMaxSlots];
  FrameError error = DecodeReplyRefs(header, body, refs);
  const char* bad = error != FrameError::kNone ? FrameErrorText(error) : nullptr;
  if (bad == nullptr) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = std::find_if(waiters_.begin(), waiters_.end(),
                           [&](Waiter* w) { return w->call_id == header.call_id && !w->done; });
    if (it == waiters_.end()) {
      bad = "answer to no call";
    } else if ((*it)->out_objs != header.counts) {
      bad = "answer with the wrong number of objects";
    } else {
      // Check every handle before touching any table.
      for (unsigned i = 0; i < header.counts && bad == nullptr; ++i) {
        if (refs[i].kind != kRefReceiverExport) continue;
        ExportTable::Entry* entry = exports_.Get(refs[i].handle);
        if (entry == nullptr || entry->sent == 0) bad = "unknown handle passed back";
      }
      if (bad == nullptr) {
        Waiter* waiter = *it;
        for (unsigned i = 0; i < header.counts; ++i) {
          waiter->pinned[i] = false;
          if (refs[i].kind == kRefNull) {
            waiter->outs[i] = kNullObject;
          } else if (refs[i].kind == kRefReceiverExport) {
            // Retained by the waiter itself, outside this lock.
            ExportTable::Entry* entry = exports_.Get(refs[i].handle);
            ++entry->pinned;
            waiter->pinned[i] = true;
            waiter->pinned_handles[i] = refs[i].handle;
            waiter->outs[i] = entry->object;
          } else {
            Proxy*& proxy = imports_[refs[i].handle];
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
        if (!*mine) waiter->cv.notify_all();
      }
    }
  }
  if (bad == nullptr) return true;
  CloseWithLog("malformed frame: %s", bad);
  return false;
}

}  // namespace tarnsocket
