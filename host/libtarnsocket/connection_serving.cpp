// Serving a call the peer made: run the target, drop the call's
// references, answer.
#include "connection.h"
#include "thread_context.h"

namespace tarnsocket {

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

}  // namespace tarnsocket
