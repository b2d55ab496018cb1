// Serving a call the peer made: run the target, drop the call's
// references, answer.
#include "buffer_pool.h"
#include "connection.h"
#include "endpoint.h"
#include "tarnsocket/tarn_ipc.h"
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
    ApplicationCallScope scope(frame->header.depth);
    result =
        frame->target.invoke(frame->target.context, frame->header.code, args, frame->header.counts);
  }

  DropInputs(frame);
  Unpin(frame->target_handle);
  if (frame->arena.mapped()) {
    BufferPool::Instance().Give(std::move(frame->arena));
    endpoint_->WantSweep();  // the pool lets idle buffers go
  }

  Object outs[kMaxSlots];
  ObjectRef refs[kMaxSlots] = {};
  unsigned marshalled = 0;
  for (; marshalled < meta.out_objs; ++marshalled) {
    outs[marshalled] = args[first_out + marshalled].o;
    if (!Marshal(outs[marshalled], &refs[marshalled])) break;
  }
  if (marshalled < meta.out_objs) {
    // The peer holds too many of our objects: it gets none of these.
    for (unsigned i = 0; i < marshalled; ++i) Unmarshal(refs[i]);
    for (unsigned i = 0; i < meta.out_objs; ++i) {
      ObjectRelease(args[first_out + i].o);
      refs[i] = ObjectRef{kRefNull, 0};
      outs[i] = kNullObject;
    }
    result = TARN_IPC_ERROR_TOO_MANY_OBJECTS;
  }
  // The export holds its own reference now; the one the call gave us goes.
  for (unsigned i = 0; i < meta.out_objs; ++i) {
    if (refs[i].kind == kRefSenderExport) ObjectRelease(outs[i]);
  }
  // Take the read side back before answering, so that the caller's next
  // call does not wake the monitor.
  const bool retaken = retake && RetakeReadSide();
  uint8_t head[kMaxHeadSize];
  const size_t size = EncodeReply(head, frame->header.call_id, result, meta.out_objs, refs);
  iovec iov{head, size};
  bool reading = retaken;
  Send(&iov, 1, size, &reading);
  // A caller may have held the read side, or a writer ahead of us made us
  // give it up: free again now, it is ours to wait on for the peer's next
  // call, which then does not go through the monitor.
  if (retake && !reading) reading = TakeFreeReadSide();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    --serving_;
  }
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
