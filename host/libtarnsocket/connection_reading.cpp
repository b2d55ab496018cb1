// Handling what the reader assembles: calls are checked against the
// peer's limits and served or handed to a worker, answers go to their
// callers, releases to the export table.
#include <memory>

#include "buffer_pool.h"
#include "connection.h"
#include "endpoint.h"
#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket {

thread_local const Connection* Connection::retaking_ = nullptr;

void Connection::ReadLoop(Waiter* self) {
  // A caller waits for its answer; a worker that has answered a call waits
  // a moment for the peer's next call, which then costs no wake-up, reading
  // meanwhile whatever else comes (answers to others' calls, releases). A
  // peer that only answers calls made to it keeps no worker waiting.
  Clock::time_point linger_until;
  for (;;) {
    const Clock::time_point until = self != nullptr ? self->deadline : linger_until;
    const FrameReader::Result result = reader_.Read(fd_, until, self != nullptr);
    if (result == FrameReader::Result::kAgain) break;
    if (result == FrameReader::Result::kEnded) {
      Close(nullptr);
      break;
    }
    if (result == FrameReader::Result::kFailed) {
      if (reader_.why() != nullptr) {
        CloseWithLog("%s", reader_.why());
      } else {
        Close(nullptr);
      }
      break;
    }
    const FrameHeader header = reader_.header();
    if (header.type == kFrameInvoke) {
      std::unique_ptr<InvokeFrame> frame = reader_.TakeInvoke();
      reader_.Next();
      bool reading = true;
      const Accepted accepted = Accept(frame.get(), &reading);
      if (accepted != Accepted::kServe) BufferPool::Instance().Give(std::move(frame->arena));
      if (accepted == Accepted::kEnded) break;
      if (!reading) return;  // a refusal had to give the read side up
      if (accepted == Accepted::kRefused) continue;
      if (self != nullptr) {
        // A waiting caller stays on the read side for its answer; the call
        // goes to a worker, in a task that must be copyable: shared only here.
        endpoint_->Dispatch(
            [keep = shared_from_this(), handed = std::shared_ptr<InvokeFrame>(std::move(frame))] {
              keep->ServeHandedOver(handed.get());
            });
        continue;
      }
      HandleAnswersBehind();
      {
        std::lock_guard<std::mutex> lock(mutex_);
        ++retakers_;
        GiveUpReadSideLocked(true);
      }
      const Connection* outer = retaking_;
      retaking_ = this;
      const bool still_reading = Serve(frame.get(), true);
      retaking_ = outer;
      if (!still_reading) return;
      // A little over the socket's receive timeout, so that one blocking
      // recv does it.
      linger_until = After(kShortWaitMs + 1);
      continue;
    }
    if (header.type == kFrameReply) {
      bool mine = false;
      const bool ok = HandleReply(header, reader_.refs(), self, &mine);
      reader_.Next();
      if (!ok || mine) break;
      continue;
    }
    const bool ok = HandleRelease(header);
    reader_.Next();
    if (!ok) break;
  }
  GiveUpReadSide();
}

void Connection::HandleAnswersBehind() {
  while (reader_.Assemble() == FrameReader::Result::kFrame) {
    const FrameHeader header = reader_.header();
    if (header.type == kFrameInvoke) return;
    bool mine = false;
    const bool ok = header.type == kFrameReply ? HandleReply(header, reader_.refs(), nullptr, &mine)
                                               : HandleRelease(header);
    reader_.Next();
    if (!ok) return;
  }
}

Connection::Accepted Connection::Accept(InvokeFrame* frame, bool* reading) {
  const FrameHeader& header = frame->header;
  if (header.depth > limits_.max_call_depth) {
    LogRefusal(&logged_depth_, "calls refused: nested %u deep, more than %u", header.depth,
               limits_.max_call_depth);
    *reading = SendRefusal(header, TARN_IPC_ERROR_TOO_DEEP);
    return Accepted::kRefused;
  }
  bool busy;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    busy = serving_ >= limits_.max_calls_in_flight;
    if (!busy) ++serving_;
  }
  if (busy) {
    LogRefusal(&logged_busy_, "calls refused: %u in flight already", limits_.max_calls_in_flight);
    *reading = SendRefusal(header, TARN_IPC_ERROR_BUSY);
    return Accepted::kRefused;
  }
  return ResolveInvoke(frame) ? Accepted::kServe : Accepted::kEnded;
}

}  // namespace tarnsocket
