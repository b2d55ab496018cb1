// The wire format: pure encode, decode and validation of frames, kept apart
// from the transport so that it can be fuzzed and tested on its own.
//
// A frame is a 24-byte header followed by body_size bytes of body, all in
// host byte order (both ends live on one machine).
//   invoke  body: in_bufs u64 sizes, in_objs ObjectRefs, then the buffers'
//                 bytes back to back, without padding;
//   reply   body: counts ObjectRefs (the output objects of the call);
//   release body: empty.
#ifndef TARNSOCKET_FRAME_H_
#define TARNSOCKET_FRAME_H_

#include <stddef.h>
#include <stdint.h>

namespace tarnsocket {

enum FrameType : uint8_t {
  kFrameInvoke = 1,   // call an object that the receiver exported
  kFrameReply = 2,    // result of an invoke, matched by call_id
  kFrameRelease = 3,  // the sender dropped `code` references to the receiver's export
};

struct FrameHeader {
  uint32_t body_size;
  uint8_t type;
  uint8_t depth;        // invoke: how deeply the call is nested (1 for a call from outside any
                        // served call); otherwise zero
  uint8_t reserved[2];  // zero
  uint32_t call_id;     // invoke, reply: chosen by the caller; release: zero
  uint32_t handle;      // invoke, release: an export handle of the receiver; reply: zero
  uint32_t code;        // invoke: op; reply: result; release: number of references
  uint32_t counts;      // invoke: counts word; reply: number of output objects; release: zero
};
static_assert(sizeof(FrameHeader) == 24, "FrameHeader is a wire record");
static_assert(offsetof(FrameHeader, type) == 4 && offsetof(FrameHeader, depth) == 5 &&
                  offsetof(FrameHeader, reserved) == 6 && offsetof(FrameHeader, call_id) == 8 &&
                  offsetof(FrameHeader, handle) == 12 && offsetof(FrameHeader, code) == 16 &&
                  offsetof(FrameHeader, counts) == 20,
              "FrameHeader is a wire record");

enum ObjectRefKind : uint32_t {
  kRefNull = 0,
  kRefSenderExport = 1,    // handle in the sender's export table: a new or known proxy
  kRefReceiverExport = 2,  // handle in the receiver's export table: the original object
};

struct ObjectRef {
  uint32_t kind;
  uint32_t handle;
};
static_assert(sizeof(ObjectRef) == 8 && offsetof(ObjectRef, handle) == 4,
              "ObjectRef is a wire record");

constexpr unsigned kMaxSlots = 15;  // per kind, from the 4-bit fields of the counts word
constexpr uint64_t kMaxBodySize = 64ull << 20;
// Every buffer handed to a served invoke is followed by this many zero bytes
// of the library's own memory, so that records read in place never run off.
constexpr uint64_t kBufferSlack = 64;
constexpr uint64_t kBufferAlign = 16;

enum class FrameError {
  kNone,
  kBadType,
  kBadReserved,
  kTooLarge,
  kBadCounts,
  kOutputBuffers,
  kBadOp,
  kBadSize,
  kBadObjectRef,
  kBadReleaseCount,
};

const char* FrameErrorText(FrameError error);

// Checks everything that the header alone decides.
FrameError ValidateHeader(const FrameHeader& header);

// Bytes of an invoke body that precede the buffers' bytes.
size_t InvokeMetaSize(uint32_t counts);

struct InvokeMeta {
  unsigned in_bufs = 0;
  unsigned in_objs = 0;
  unsigned out_objs = 0;
  uint64_t sizes[kMaxSlots] = {};
  ObjectRef objects[kMaxSlots] = {};
  uint64_t data_size = 0;  // sum of sizes
};

// meta holds InvokeMetaSize(header.counts) bytes; the header must have
// passed ValidateHeader. Checks that the sizes add up to the body.
FrameError DecodeInvokeMeta(const FrameHeader& header, const uint8_t* meta, InvokeMeta* out);

// body holds header.body_size bytes of a validated reply header.
FrameError DecodeReplyRefs(const FrameHeader& header, const uint8_t* body,
                           ObjectRef refs[kMaxSlots]);

// Where each buffer of a decoded invoke lands in the receiver's arena, with
// kBufferSlack zero bytes after each one. Returns the arena size.
uint64_t LayoutArena(const InvokeMeta& meta, uint64_t offsets[kMaxSlots]);

// Encoders write header plus meta (invoke) or header plus refs (reply) into
// out, which must hold kMaxHeadSize bytes; they return the bytes written.
constexpr size_t kMaxHeadSize = sizeof(FrameHeader) + size_t{kMaxSlots} * 16;
size_t EncodeInvokeHead(uint8_t* out, uint32_t call_id, uint32_t handle, uint32_t op,
                        uint32_t counts, const uint64_t* sizes, const ObjectRef* refs,
                        uint8_t depth);
size_t EncodeReply(uint8_t* out, uint32_t call_id, int32_t result, unsigned out_objs,
                   const ObjectRef* refs);
size_t EncodeRelease(uint8_t* out, uint32_t handle, uint32_t count);

}  // namespace tarnsocket

#endif  // TARNSOCKET_FRAME_H_
