// Reading frames: headers through a read-ahead buffer, calls into an arena
// with zeroed slack behind each buffer, answers and releases handed on.
#include "connection.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>

#include "endpoint.h"

namespace tarnsocket {
namespace {

// Bodies up to this size arrive in one read and are then laid out in the
// arena; larger ones are read straight into place.
constexpr uint32_t kInlineBody = 4096;

// Per-thread storage, kept for the thread's life so that large calls do not
// allocate and free (and fault in) big blocks every time.
thread_local Arena t_arena;
thread_local std::vector<uint8_t> t_scratch;

void EnsureSize(std::vector<uint8_t>* buffer, uint64_t size) {
  if (buffer->size() < size) buffer->resize(size);
}

}  // namespace

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

}  // namespace tarnsocket
