// Assembles the peer's frames from a stream socket for whichever thread
// holds the read side. The bytes of a frame that has not fully arrived stay
// here between readers, so that no thread ever has to wait for a peer to
// finish a frame: a frame is handed on only once it is whole, and one that
// is not whole within the frame timeout of its first byte ends the
// connection.
#ifndef TARNSOCKET_FRAME_READER_H_
#define TARNSOCKET_FRAME_READER_H_

#include <stddef.h>
#include <stdint.h>
#include <sys/uio.h>

#include <atomic>
#include <memory>
#include <vector>

#include "clock.h"
#include "frame.h"
#include "invoke_frame.h"

namespace tarnsocket {

class FrameReader {
 public:
  enum class Result {
    kFrame,   // a whole frame is ready
    kAgain,   // no whole frame yet
    kEnded,   // the peer ended the stream between frames
    kFailed,  // the connection must end; why() says why, or is null for a reset
  };

  // max_invoke_body: larger calls fail the stream.
  FrameReader(uint32_t frame_timeout_ms, uint64_t max_invoke_body);
  FrameReader(const FrameReader&) = delete;
  FrameReader& operator=(const FrameReader&) = delete;

  // Reads until a frame is whole. Waits for bytes until `until` (never, if
  // it has passed), but for the rest of a started frame only if mid_frame.
  Result Read(int fd, Clock::time_point until, bool mid_frame);
  // What bytes already read give, without reading: kFrame, kAgain or kFailed.
  Result Assemble();
  const char* why() const { return why_[0] != '\0' ? why_ : nullptr; }

  // The ready frame.
  const FrameHeader& header() const { return header_; }
  std::unique_ptr<InvokeFrame> TakeInvoke() { return std::move(invoke_); }
  const ObjectRef* refs() const { return refs_; }
  // Done with the ready frame; the next one may start.
  void Next();

  // Whether a frame has started and is older than the frame timeout; any
  // thread may ask.
  bool Overdue(Clock::time_point now) const;
  bool InFrame() const { return started_ns_.load(std::memory_order_relaxed) != 0; }

 private:
  enum class Stage { kHeader, kBody, kMeta, kBuffers, kReady, kFailed };

  Result Fail(const char* format, ...) __attribute__((format(printf, 2, 3)));
  // The body's metadata is at `meta`: decode it, lay the buffers out in a
  // fresh arena and clear the slack behind each.
  Result StartInvoke(const uint8_t* meta);
  ssize_t Receive(int fd, int flags);
  size_t buffered() const { return end_ - begin_; }
  void MarkStarted(Clock::time_point now);

  const uint32_t frame_timeout_ms_;
  const uint64_t max_invoke_body_;
  Stage stage_ = Stage::kHeader;
  std::vector<uint8_t> in_;  // read ahead: a small frame usually takes one recv
  size_t begin_ = 0;
  size_t end_ = 0;
  FrameHeader header_{};
  std::unique_ptr<InvokeFrame> invoke_;
  iovec parts_[kMaxSlots] = {};  // what is left of a large call's buffers
  int part_first_ = 0;
  int part_count_ = 0;
  ObjectRef refs_[kMaxSlots] = {};
  std::atomic<int64_t> started_ns_{0};  // the frame under way, since the clock's epoch
  char why_[160] = {};
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_FRAME_READER_H_
