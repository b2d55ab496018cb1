#include "frame_reader.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "buffer_pool.h"
#include "socket_io.h"

namespace tarnsocket {
namespace {

// Bodies up to this size are read ahead with the header and then laid out
// in the arena; larger ones are read straight into place.
constexpr uint32_t kInlineBody = 4096;
constexpr size_t kReadAhead = size_t{2} * kInlineBody;

int64_t Nanoseconds(Clock::time_point when) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(when.time_since_epoch()).count();
}

}  // namespace

FrameReader::FrameReader(uint32_t frame_timeout_ms, uint64_t max_invoke_body)
    : frame_timeout_ms_(frame_timeout_ms), max_invoke_body_(max_invoke_body), in_(kReadAhead) {}

FrameReader::Result FrameReader::Fail(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(why_, sizeof why_, format, args);
  va_end(args);
  stage_ = Stage::kFailed;
  return Result::kFailed;
}

void FrameReader::MarkStarted(Clock::time_point now) {
  if (started_ns_.load(std::memory_order_relaxed) == 0) {
    started_ns_.store(Nanoseconds(now), std::memory_order_relaxed);
  }
}

bool FrameReader::Overdue(Clock::time_point now) const {
  const int64_t started = started_ns_.load(std::memory_order_relaxed);
  return started != 0 && Nanoseconds(now) - started > int64_t{frame_timeout_ms_} * 1000000;
}

void FrameReader::Next() {
  stage_ = Stage::kHeader;
  invoke_.reset();
  // Bytes of the next frame may have come with this one.
  started_ns_.store(buffered() > 0 ? Nanoseconds(Clock::now()) : 0, std::memory_order_relaxed);
}

FrameReader::Result FrameReader::StartInvoke(const uint8_t* meta) {
  invoke_ = std::make_unique<InvokeFrame>();
  InvokeFrame& frame = *invoke_;
  frame.header = header_;
  const FrameError error = DecodeInvokeMeta(header_, meta, &frame.meta);
  if (error != FrameError::kNone) return Fail("malformed frame: %s", FrameErrorText(error));
  const uint64_t size = LayoutArena(frame.meta, frame.offsets);
  if (!BufferPool::Instance().Take(size, &frame.arena)) {
    return Fail("no memory for a call of %llu bytes", static_cast<unsigned long long>(size));
  }
  part_first_ = part_count_ = 0;
  for (unsigned i = 0; i < frame.meta.in_bufs; ++i) {
    uint8_t* place = frame.arena.data() + frame.offsets[i];
    const uint64_t end = i + 1 < frame.meta.in_bufs ? frame.offsets[i + 1] : size;
    memset(place + frame.meta.sizes[i], 0,
           static_cast<size_t>(end - frame.offsets[i] - frame.meta.sizes[i]));
    if (frame.meta.sizes[i] > 0) {
      parts_[part_count_++] = iovec{place, static_cast<size_t>(frame.meta.sizes[i])};
    }
  }
  return Result::kAgain;
}

FrameReader::Result FrameReader::Assemble() {
  for (;;) {
    switch (stage_) {
      case Stage::kHeader: {
        if (buffered() < sizeof header_) return Result::kAgain;
        memcpy(&header_, &in_[begin_], sizeof header_);
        begin_ += sizeof header_;
        const FrameError error = ValidateHeader(header_);
        if (error != FrameError::kNone) return Fail("malformed frame: %s", FrameErrorText(error));
        const bool invoke = header_.type == kFrameInvoke;
        if (invoke && header_.body_size > max_invoke_body_) {
          return Fail("call of %u bytes, more than the limit of %llu", header_.body_size,
                      static_cast<unsigned long long>(max_invoke_body_));
        }
        stage_ = invoke && header_.body_size > kInlineBody ? Stage::kMeta : Stage::kBody;
        break;
      }
      case Stage::kBody: {
        if (buffered() < header_.body_size) return Result::kAgain;
        const uint8_t* body = &in_[begin_];
        begin_ += header_.body_size;
        if (header_.type == kFrameInvoke) {
          if (StartInvoke(body) == Result::kFailed) return Result::kFailed;
          const uint8_t* bytes = body + InvokeMetaSize(header_.counts);
          for (int i = 0; i < part_count_; ++i) {
            memcpy(parts_[i].iov_base, bytes, parts_[i].iov_len);
            bytes += parts_[i].iov_len;
          }
        } else if (header_.type == kFrameReply) {
          const FrameError error = DecodeReplyRefs(header_, body, refs_);
          if (error != FrameError::kNone) {
            return Fail("malformed frame: %s", FrameErrorText(error));
          }
        }
        stage_ = Stage::kReady;
        break;
      }
      case Stage::kMeta: {
        const size_t meta_size = InvokeMetaSize(header_.counts);
        if (buffered() < meta_size) return Result::kAgain;
        const uint8_t* meta = &in_[begin_];
        begin_ += meta_size;
        if (StartInvoke(meta) == Result::kFailed) return Result::kFailed;
        // What was read ahead of the buffers goes into place first.
        while (part_first_ < part_count_ && buffered() > 0) {
          iovec& part = parts_[part_first_];
          const size_t n = std::min(part.iov_len, buffered());
          memcpy(part.iov_base, &in_[begin_], n);
          begin_ += n;
          part.iov_base = static_cast<uint8_t*>(part.iov_base) + n;
          part.iov_len -= n;
          if (part.iov_len == 0) ++part_first_;
        }
        stage_ = Stage::kBuffers;
        break;
      }
      case Stage::kBuffers:
        if (part_first_ < part_count_) return Result::kAgain;
        stage_ = Stage::kReady;
        break;
      case Stage::kReady:
        return Result::kFrame;
      case Stage::kFailed:
        return Result::kFailed;
    }
  }
}

ssize_t FrameReader::Receive(int fd, int flags) {
  if (stage_ == Stage::kBuffers) {
    msghdr msg{};
    msg.msg_iov = parts_ + part_first_;
    msg.msg_iovlen = static_cast<size_t>(part_count_ - part_first_);
    const ssize_t got = recvmsg(fd, &msg, flags);
    size_t left = got > 0 ? static_cast<size_t>(got) : 0;
    while (left > 0) {
      iovec& part = parts_[part_first_];
      const size_t n = std::min(left, part.iov_len);
      part.iov_base = static_cast<uint8_t*>(part.iov_base) + n;
      part.iov_len -= n;
      left -= n;
      if (part.iov_len == 0) ++part_first_;
    }
    return got;
  }
  if (begin_ > 0) {
    memmove(in_.data(), in_.data() + begin_, buffered());
    end_ -= begin_;
    begin_ = 0;
  }
  const ssize_t got = recv(fd, in_.data() + end_, in_.size() - end_, flags);
  if (got > 0) end_ += static_cast<size_t>(got);
  return got;
}

FrameReader::Result FrameReader::Read(int fd, Clock::time_point until, bool mid_frame) {
  bool blocked = false;
  for (;;) {
    const Result assembled = Assemble();
    if (assembled != Result::kAgain) return assembled;
    const Clock::time_point now = Clock::now();
    const bool in_frame = InFrame();
    Clock::time_point wait_until = until;
    if (in_frame) {
      if (Overdue(now)) return Fail("frame not whole within %u ms", frame_timeout_ms_);
      if (!mid_frame) wait_until = now;
      const int64_t started = started_ns_.load(std::memory_order_relaxed);
      const Clock::time_point due = Clock::time_point(std::chrono::nanoseconds(started)) +
                                    std::chrono::milliseconds(frame_timeout_ms_ + 1);
      wait_until = std::min(wait_until, due);
    }
    const bool may_wait = wait_until > now;
    int flags = MSG_DONTWAIT;
    // A blocking recv is one system call where poll and recv are two; the
    // socket's receive timeout bounds it.
    if (may_wait && !blocked && wait_until - now >= std::chrono::milliseconds(kShortWaitMs)) {
      flags = 0;
      blocked = true;
    }
    const ssize_t got = Receive(fd, flags);
    if (got > 0) {
      MarkStarted(now);
      continue;
    }
    if (got == 0) {
      if (in_frame || buffered() > 0) return Fail("peer ended the stream in the middle of a frame");
      return Result::kEnded;
    }
    const int error = errno;
    if (error == EINTR) continue;
    if (error == ECONNRESET) {
      // A peer that exits with our bytes still unread resets the
      // connection: an ordinary end, like a close.
      why_[0] = '\0';
      stage_ = Stage::kFailed;
      return Result::kFailed;
    }
    if (error != EAGAIN && error != EWOULDBLOCK) {
      return Fail("read failed: %d (%s)", error, strerror(error));  // NOLINT(concurrency-mt-unsafe)
    }
    if (flags == 0) continue;  // the blocking recv timed out: poll the rest
    if (!may_wait || Clock::now() >= wait_until) {
      if (InFrame() && Overdue(Clock::now())) {
        return Fail("frame not whole within %u ms", frame_timeout_ms_);
      }
      return Result::kAgain;
    }
    WaitReadable(fd, wait_until);
  }
}

}  // namespace tarnsocket
