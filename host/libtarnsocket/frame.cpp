#include "frame.h"

#include <string.h>

#include <tesk/object.h>

namespace tarnsocket {
namespace {

uint64_t AlignUp(uint64_t value) {
  return (value + kBufferAlign - 1) & ~(kBufferAlign - 1);
}

bool ValidRef(const ObjectRef& ref) {
  if (ref.kind == kRefNull) return ref.handle == 0;
  return ref.kind == kRefSenderExport || ref.kind == kRefReceiverExport;
}

}  // namespace

const char* FrameErrorText(FrameError error) {
  switch (error) {
    case FrameError::kNone:
      return "none";
    case FrameError::kBadType:
      return "unknown frame type";
    case FrameError::kBadReserved:
      return "reserved field set";
    case FrameError::kTooLarge:
      return "frame too large";
    case FrameError::kBadCounts:
      return "bad counts";
    case FrameError::kOutputBuffers:
      return "output buffers are not supported";
    case FrameError::kBadOp:
      return "retain or release sent as a call";
    case FrameError::kBadSize:
      return "sizes do not add up to the frame";
    case FrameError::kBadObjectRef:
      return "bad object reference";
    case FrameError::kBadReleaseCount:
      return "bad release count";
  }
  return "unknown";
}

FrameError ValidateHeader(const FrameHeader& header) {
  if (header.reserved[0] != 0 || header.reserved[1] != 0) return FrameError::kBadReserved;
  if (header.type != kFrameInvoke && header.depth != 0) return FrameError::kBadReserved;
  if (header.body_size > kMaxBodySize) return FrameError::kTooLarge;
  switch (header.type) {
    case kFrameInvoke: {
      if ((header.counts >> 16) != 0) return FrameError::kBadCounts;
      if (OBJECT_COUNTS_OUT_BUFS(header.counts) != 0) return FrameError::kOutputBuffers;
      const uint32_t op = header.code & OBJECT_OP_MASK;
      // References never travel as calls: each side counts its own.
      if (op == OBJECT_OP_RETAIN || op == OBJECT_OP_RELEASE) return FrameError::kBadOp;
      if (header.body_size < InvokeMetaSize(header.counts)) return FrameError::kBadSize;
      return FrameError::kNone;
    }
    case kFrameReply:
      if (header.handle != 0) return FrameError::kBadReserved;
      if (header.counts > kMaxSlots) return FrameError::kBadCounts;
      if (header.body_size != header.counts * sizeof(ObjectRef)) return FrameError::kBadSize;
      return FrameError::kNone;
    case kFrameRelease:
      if (header.call_id != 0 || header.counts != 0) return FrameError::kBadReserved;
      if (header.body_size != 0) return FrameError::kBadSize;
      if (header.code == 0) return FrameError::kBadReleaseCount;
      return FrameError::kNone;
    default:
      return FrameError::kBadType;
  }
}

size_t InvokeMetaSize(uint32_t counts) {
  return OBJECT_COUNTS_IN_BUFS(counts) * sizeof(uint64_t) +
         OBJECT_COUNTS_IN_OBJS(counts) * sizeof(ObjectRef);
}

FrameError DecodeInvokeMeta(const FrameHeader& header, const uint8_t* meta, InvokeMeta* out) {
  out->in_bufs = OBJECT_COUNTS_IN_BUFS(header.counts);
  out->in_objs = OBJECT_COUNTS_IN_OBJS(header.counts);
  out->out_objs = OBJECT_COUNTS_OUT_OBJS(header.counts);
  const size_t meta_size = InvokeMetaSize(header.counts);
  const uint64_t room = header.body_size - meta_size;  // ValidateHeader: no underflow
  uint64_t total = 0;
  for (unsigned i = 0; i < out->in_bufs; ++i) {
    uint64_t size;
    memcpy(&size, meta + i * sizeof size, sizeof size);
    // Each size is checked against the room left, so the sum cannot wrap.
    if (size > room - total) return FrameError::kBadSize;
    total += size;
    out->sizes[i] = size;
  }
  if (total != room) return FrameError::kBadSize;
  out->data_size = total;
  const uint8_t* refs = meta + out->in_bufs * sizeof(uint64_t);
  for (unsigned i = 0; i < out->in_objs; ++i) {
    memcpy(&out->objects[i], refs + i * sizeof(ObjectRef), sizeof(ObjectRef));
    if (!ValidRef(out->objects[i])) return FrameError::kBadObjectRef;
  }
  return FrameError::kNone;
}

FrameError DecodeReplyRefs(const FrameHeader& header, const uint8_t* body,
                           ObjectRef refs[kMaxSlots]) {
  for (unsigned i = 0; i < header.counts; ++i) {
    memcpy(&refs[i], body + i * sizeof(ObjectRef), sizeof(ObjectRef));
    if (!ValidRef(refs[i])) return FrameError::kBadObjectRef;
  }
  return FrameError::kNone;
}

uint64_t LayoutArena(const InvokeMeta& meta, uint64_t offsets[kMaxSlots]) {
  uint64_t end = 0;
  for (unsigned i = 0; i < meta.in_bufs; ++i) {
    offsets[i] = end;
    end = AlignUp(end + meta.sizes[i] + kBufferSlack);
  }
  return end;
}

size_t EncodeInvokeHead(uint8_t* out, uint32_t call_id, uint32_t handle, uint32_t op,
                        uint32_t counts, const uint64_t* sizes, const ObjectRef* refs,
                        uint8_t depth) {
  const unsigned in_bufs = OBJECT_COUNTS_IN_BUFS(counts);
  const unsigned in_objs = OBJECT_COUNTS_IN_OBJS(counts);
  uint64_t body = InvokeMetaSize(counts);
  for (unsigned i = 0; i < in_bufs; ++i) body += sizes[i];
  FrameHeader header{};
  header.body_size = static_cast<uint32_t>(body);
  header.type = kFrameInvoke;
  header.depth = depth;
  header.call_id = call_id;
  header.handle = handle;
  header.code = op;
  header.counts = counts;
  memcpy(out, &header, sizeof header);
  size_t used = sizeof header;
  if (in_bufs > 0) memcpy(out + used, sizes, in_bufs * sizeof(uint64_t));
  used += in_bufs * sizeof(uint64_t);
  if (in_objs > 0) memcpy(out + used, refs, in_objs * sizeof(ObjectRef));
  return used + in_objs * sizeof(ObjectRef);
}

size_t EncodeReply(uint8_t* out, uint32_t call_id, int32_t result, unsigned out_objs,
                   const ObjectRef* refs) {
  FrameHeader header{};
  header.body_size = static_cast<uint32_t>(out_objs * sizeof(ObjectRef));
  header.type = kFrameReply;
  header.call_id = call_id;
  header.code = static_cast<uint32_t>(result);
  header.counts = out_objs;
  memcpy(out, &header, sizeof header);
  if (out_objs > 0) memcpy(out + sizeof header, refs, out_objs * sizeof(ObjectRef));
  return sizeof header + out_objs * sizeof(ObjectRef);
}

size_t EncodeRelease(uint8_t* out, uint32_t handle, uint32_t count) {
  FrameHeader header{};
  header.type = kFrameRelease;
  header.handle = handle;
  header.code = count;
  memcpy(out, &header, sizeof header);
  return sizeof header;
}

}  // namespace tarnsocket
