#include "connection.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "call_timeout.h"
#include "endpoint.h"
#include "log.h"
#include "tarnsocket/tarn_ipc.h"
#include "thread_context.h"

namespace tarnsocket {
namespace {

// Bodies up to this size arrive in one read and are then laid out in the
// arena; larger ones are read straight into place.
constexpr uint32_t kInlineBody = 4096;
// Frames up to this size are sent while holding the read side: they fit in
// the socket buffer, so the sender cannot block on a peer that is itself
// blocked sending to us.
constexpr uint64_t kSmallFrame = uint64_t{32} * 1024;
constexpr size_t kReadAhead = size_t{16} * 1024;

// Per-thread storage, kept for the thread's life so that large calls do not
// allocate and free (and fault in) big blocks every time.
thread_local Arena t_arena;
thread_local std::vector<uint8_t> t_scratch;

void EnsureSize(std::vector<uint8_t>* buffer, uint64_t size) {
  if (buffer->size() < size) buffer->resize(size);
}

}  // namespace

Connection::Connection(int fd, Side side, Endpoint* endpoint, uint64_t id)
    : fd_(fd), side_(side), endpoint_(endpoint), id_(id), timeout_ms_(CallTimeoutMs()) {
  SetSocketTimeouts(fd_, timeout_ms_);
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) peer_pid_ = cred.pid;
  waiters_.reserve(16);
  in_.resize(kReadAhead);
}

Connection::~Connection() {
  close(fd_);
}

void Connection::CloseWithLog(const char* format, ...) {
  char text[256];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  Close(text);
}

void Connection::Close(const char* why) {
  std::vector<Object> released;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) return;
    closed_ = true;
    exports_.ForgetPeer(&released);
    // Proxies stay valid for their holders; their calls now fail at once.
    imports_.clear();
    for (Waiter* waiter : waiters_) waiter->cv.notify_all();
  }
  if (why != nullptr) LogError("Connection to pid %d closed: %s", peer_pid_, why);
  shutdown(fd_, SHUT_RDWR);
  endpoint_->Forget(fd_);
  endpoint_->Remove(id_);
  ReleaseOwned(std::move(released));
}

void Connection::ReleaseOwned(std::vector<Object> objects) {
  if (objects.empty()) return;
  if (InLibraryContext()) {
    for (const Object& object : objects) ObjectRelease(object);
    return;
  }
  endpoint_->Dispatch([objects = std::move(objects)] {
    for (const Object& object : objects) ObjectRelease(object);
  });
}

void Connection::ExportRoot(const Object& root) {
  ObjectRetain(root);
  std::lock_guard<std::mutex> lock(mutex_);
  const uint32_t handle = exports_.Add(root);
  exports_.Get(handle)->sent = 1;
}

Object Connection::ImportRoot() {
  Proxy* proxy = new Proxy{shared_from_this(), 0, 1, 1};
  std::lock_guard<std::mutex> lock(mutex_);
  imports_[0] = proxy;
  return ProxyObject(proxy);
}

// --- references -------------------------------------------------------------

void Connection::RetainProxy(Proxy* proxy) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++proxy->refs;
}

void Connection::ReleaseProxy(Proxy* proxy) {
  const std::shared_ptr<Connection> self = proxy->connection;
  bool send = false;
  bool last_import = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (--proxy->refs > 0) return;
    auto it = imports_.find(proxy->handle);
    if (it != imports_.end() && it->second == proxy) {
      imports_.erase(it);
      send = !closed_;
      last_import = side_ == Side::kClient && imports_.empty();
    }
  }
  if (send) SendRelease(proxy->handle, proxy->received);
  // A client's connection lives as long as it holds something from it.
  if (last_import) Close(nullptr);
  delete proxy;
}

ObjectRef Connection::Marshal(const Object& object) {
  if (IsNullObject(object)) return ObjectRef{kRefNull, 0};
  Proxy* proxy = AsProxy(object);
  if (proxy != nullptr && proxy->connection.get() == this) {
    return ObjectRef{kRefReceiverExport, proxy->handle};
  }
  uint32_t handle;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (exports_.Find(object, &handle)) {
      ++exports_.Get(handle)->sent;
      return ObjectRef{kRefSenderExport, handle};
    }
  }
  // The library's own reference, taken outside the lock: the object may be
  // a proxy of another connection, whose lock must not nest inside ours.
  ObjectRetain(object);
  bool undo = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (exports_.Find(object, &handle)) {
      undo = true;  // another thread exported it meanwhile
      ++exports_.Get(handle)->sent;
    } else if (closed_) {
      undo = true;  // the send will fail anyway
      handle = 0;
    } else {
      handle = exports_.Add(object);
      ++exports_.Get(handle)->sent;
      if (!reader_busy_) ArmLocked();
    }
  }
  if (undo) ObjectRelease(object);
  return ObjectRef{kRefSenderExport, handle};
}

void Connection::Unpin(uint32_t handle) {
  Object object;
  bool release = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* entry = exports_.Get(handle);
    if (entry == nullptr) return;
    --entry->pinned;
    release = exports_.RemoveIfUnused(handle, &object);
  }
  if (release) ReleaseOwned({object});
}

// --- writing ----------------------------------------------------------------

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

// --- read side --------------------------------------------------------------

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

void Connection::ReadLoop(Waiter* self) {
  for (;;) {
    FrameHeader header;
    const RecvStatus status = ReadHeader(&header);
    if (status == RecvStatus::kIdle) {
      std::unique_lock<std::mutex> lock(mutex_);
      if (closed_) break;
      if (self != nullptr) {
        if (self->done) break;
        if (Clock::now() < self->deadline) continue;
        self->timed_out = true;
        lock.unlock();
        CloseWithLog("no answer within %u ms", timeout_ms_);
        break;
      }
      if (PendingWaitersLocked()) continue;
      GiveUpReadSideLocked();
      return;
    }
    if (status != RecvStatus::kOk) {
      switch (status) {
        case RecvStatus::kClosed:
          Close(nullptr);
          break;
        case RecvStatus::kStalled:
          CloseWithLog("peer stalled in the middle of a frame for %u ms", timeout_ms_);
          break;
        case RecvStatus::kTruncated:
          CloseWithLog("peer ended the stream in the middle of a frame");
          break;
        default: {
          const int error = errno;
          // A peer that exits with our bytes still unread resets the
          // connection: an ordinary end, like a close.
          if (error == ECONNRESET) {
            Close(nullptr);
          } else {
            CloseWithLog("read failed: %d (%s)", error, strerror(error));
          }
          break;
        }
      }
      break;
    }
    const FrameError error = ValidateHeader(header);
    if (error != FrameError::kNone) {
      CloseWithLog("malformed frame: %s", FrameErrorText(error));
      break;
    }
    if (header.type == kFrameInvoke) {
      if (self != nullptr) {
        // A waiting caller stays on the read side for its answer; the call
        // goes to a worker with the arena it was read into.
        auto frame = std::make_shared<InvokeFrame>();
        if (!ReadInvoke(header, frame.get()) || !ResolveInvoke(frame.get())) break;
        std::shared_ptr<Connection> keep = shared_from_this();
        endpoint_->Dispatch([keep, frame] { keep->ServeHandedOver(frame.get()); });
        continue;
      }
      InvokeFrame frame;
      if (!ReadInvoke(header, &frame) || !ResolveInvoke(&frame)) {
        t_arena.KeepLarger(frame.arena);
        break;
      }
      GiveUpReadSide();
      const bool retaken = Serve(&frame, true);
      t_arena.KeepLarger(frame.arena);
      if (!retaken) return;
      continue;
    }
    if (header.type == kFrameReply) {
      bool mine = false;
      if (!HandleReply(header, self, &mine)) break;
      if (mine) break;
      continue;
    }
    if (!HandleRelease(header)) break;
  }
  GiveUpReadSide();
}

RecvStatus Connection::ReadHeader(FrameHeader* header) {
  while (in_end_ - in_begin_ < sizeof *header) {
    if (in_begin_ > 0) {
      memmove(in_.data(), in_.data() + in_begin_, in_end_ - in_begin_);
      in_end_ -= in_begin_;
      in_begin_ = 0;
    }
    const ssize_t got = recv(fd_, in_.data() + in_end_, in_.size() - in_end_, 0);
    if (got > 0) {
      in_end_ += static_cast<size_t>(got);
      continue;
    }
    const bool started = in_end_ > 0;
    if (got == 0) return started ? RecvStatus::kTruncated : RecvStatus::kClosed;
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return started ? RecvStatus::kStalled : RecvStatus::kIdle;
    }
    return RecvStatus::kError;
  }
  memcpy(header, in_.data() + in_begin_, sizeof *header);
  in_begin_ += sizeof *header;
  return RecvStatus::kOk;
}

RecvStatus Connection::Fill(iovec* iov, int count) {
  int first = 0;
  while (first < count && in_end_ > in_begin_) {
    const size_t n = std::min(iov[first].iov_len, in_end_ - in_begin_);
    memcpy(iov[first].iov_base, in_.data() + in_begin_, n);
    in_begin_ += n;
    iov[first].iov_base = static_cast<uint8_t*>(iov[first].iov_base) + n;
    iov[first].iov_len -= n;
    if (iov[first].iov_len == 0) ++first;
  }
  if (in_begin_ == in_end_) in_begin_ = in_end_ = 0;
  if (first == count) return RecvStatus::kOk;
  const RecvStatus status = RecvAll(fd_, iov + first, count - first);
  // The frame has started: running dry now is a stall, not idleness.
  if (status == RecvStatus::kIdle) return RecvStatus::kStalled;
  if (status == RecvStatus::kClosed) return RecvStatus::kTruncated;
  return status;
}

bool Connection::ReadInvoke(const FrameHeader& header, InvokeFrame* frame) {
  frame->header = header;
  frame->arena.Swap(t_arena);  // given back by the caller once served
  const size_t meta_size = InvokeMetaSize(header.counts);
  const uint32_t read_now =
      header.body_size <= kInlineBody ? header.body_size : static_cast<uint32_t>(meta_size);
  EnsureSize(&t_scratch, std::max<uint64_t>(kInlineBody, 1));
  iovec iov{t_scratch.data(), read_now};
  RecvStatus status = Fill(&iov, 1);
  if (status != RecvStatus::kOk) {
    CloseWithLog("peer stopped in the middle of a frame");
    return false;
  }
  const FrameError error = DecodeInvokeMeta(header, t_scratch.data(), &frame->meta);
  if (error != FrameError::kNone) {
    CloseWithLog("malformed frame: %s", FrameErrorText(error));
    return false;
  }
  const InvokeMeta& meta = frame->meta;
  const uint64_t arena_size = LayoutArena(meta, frame->offsets);
  if (!frame->arena.Reserve(arena_size)) {
    CloseWithLog("no memory for a call of %llu bytes", static_cast<unsigned long long>(arena_size));
    return false;
  }
  uint8_t* base = frame->arena.data();
  iovec parts[kMaxSlots];
  int count = 0;
  uint64_t wire = meta_size;
  for (unsigned i = 0; i < meta.in_bufs; ++i) {
    uint8_t* place = base + frame->offsets[i];
    if (read_now == header.body_size) {
      memcpy(place, t_scratch.data() + wire, meta.sizes[i]);
    } else if (meta.sizes[i] > 0) {
      parts[count++] = iovec{place, meta.sizes[i]};
    }
    wire += meta.sizes[i];
    const uint64_t end = i + 1 < meta.in_bufs ? frame->offsets[i + 1] : arena_size;
    memset(place + meta.sizes[i], 0, end - frame->offsets[i] - meta.sizes[i]);
  }
  if (count > 0) {
    status = Fill(parts, count);
    if (status != RecvStatus::kOk) {
      CloseWithLog("peer stopped in the middle of a frame");
      return false;
    }
  }
  return true;
}

bool Connection::ResolveInvoke(InvokeFrame* frame) {
  const char* bad = nullptr;
  bool target_pinned = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* target = exports_.Get(frame->header.handle);
    if (target == nullptr || target->sent == 0) {
      bad = "call of an unknown handle";
    } else {
      ++target->pinned;
      target_pinned = true;
      frame->target = target->object;
      frame->target_handle = frame->header.handle;
      for (unsigned i = 0; i < frame->meta.in_objs && bad == nullptr; ++i) {
        const ObjectRef& ref = frame->meta.objects[i];
        frame->pinned[i] = false;
        if (ref.kind == kRefNull) {
          frame->in_objects[i] = kNullObject;
        } else if (ref.kind == kRefReceiverExport) {
          ExportTable::Entry* entry = exports_.Get(ref.handle);
          if (entry == nullptr || entry->sent == 0) {
            bad = "unknown handle passed back";
            break;
          }
          ++entry->pinned;
          frame->pinned[i] = true;
          frame->in_objects[i] = entry->object;
        } else {
          Proxy*& proxy = imports_[ref.handle];
          if (proxy == nullptr) proxy = new Proxy{shared_from_this(), ref.handle, 0, 0};
          ++proxy->refs;
          ++proxy->received;
          frame->in_objects[i] = ProxyObject(proxy);
        }
        frame->resolved = i + 1;
      }
    }
  }
  if (bad == nullptr) return true;
  DropInputs(frame);
  if (target_pinned) Unpin(frame->target_handle);
  CloseWithLog("malformed frame: %s", bad);
  return false;
}

void Connection::DropInputs(InvokeFrame* frame) {
  for (unsigned i = 0; i < frame->resolved; ++i) {
    if (frame->pinned[i]) {
      Unpin(frame->meta.objects[i].handle);
    } else if (!IsNullObject(frame->in_objects[i])) {
      ReleaseProxy(static_cast<Proxy*>(frame->in_objects[i].context));
    }
  }
  frame->resolved = 0;
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

bool Connection::HandleRelease(const FrameHeader& header) {
  Object object;
  bool known = false;
  bool release = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExportTable::Entry* entry = exports_.Get(header.handle);
    if (entry != nullptr && entry->sent >= header.code) {
      known = true;
      entry->sent -= header.code;
      release = exports_.RemoveIfUnused(header.handle, &object);
    }
  }
  if (!known) {
    CloseWithLog("malformed frame: release of references never given");
    return false;
  }
  if (release) ReleaseOwned({object});
  return true;
}

// --- serving ----------------------------------------------------------------

void Connection::ServeHandedOver(InvokeFrame* frame) {
  Serve(frame, false);
}

bool Connection::Serve(InvokeFrame* frame, bool retake) {
  const InvokeMeta& meta = frame->meta;
  ObjectArg args[kMaxSlots * 3];
  unsigned slot = 0;
  uint8_t* base = frame->arena.data();
  for (unsigned i = 0; i < meta.in_bufs; ++i) {
    args[slot].b.ptr = base + frame->offsets[i];
    args[slot].b.size = meta.sizes[i];
    ++slot;
  }
  for (unsigned i = 0; i < meta.in_objs; ++i) args[slot++].o = frame->in_objects[i];
  const unsigned first_out = slot;
  for (unsigned i = 0; i < meta.out_objs; ++i) args[slot++].o = kNullObject;

  int32_t result;
  {
    ApplicationCallScope scope;
    result =
        frame->target.invoke(frame->target.context, frame->header.code, args, frame->header.counts);
  }

  DropInputs(frame);
  Unpin(frame->target_handle);

  Object outs[kMaxSlots];
  ObjectRef refs[kMaxSlots];
  for (unsigned i = 0; i < meta.out_objs; ++i) {
    outs[i] = args[first_out + i].o;
    refs[i] = Marshal(outs[i]);
  }
  // The export holds its own reference now; the one the call gave us goes.
  for (unsigned i = 0; i < meta.out_objs; ++i) {
    if (refs[i].kind == kRefSenderExport) ObjectRelease(outs[i]);
  }
  // Take the read side back before answering, so that the caller's next
  // call does not wake the monitor.
  const bool retaken = retake && RetakeReadSide();
  uint8_t head[kMaxHeadSize];
  iovec iov{head, EncodeReply(head, frame->header.call_id, result, meta.out_objs, refs)};
  bool reading = retaken;
  Send(&iov, 1, &reading);
  // A passed-back proxy of this connection is let go only after the answer
  // that names it, so that its release frame cannot overtake the answer.
  for (unsigned i = 0; i < meta.out_objs; ++i) {
    if (refs[i].kind == kRefReceiverExport) ObjectRelease(outs[i]);
  }
  if (reading) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (closed_) {
      reader_busy_ = false;
      return false;
    }
  }
  return reading;
}

// --- calling ----------------------------------------------------------------

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

}  // namespace tarnsocket
