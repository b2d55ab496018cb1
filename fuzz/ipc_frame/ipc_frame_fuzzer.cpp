// Feeds arbitrary bytes to the frame codec the way the transport does: a
// header, then the body it announces. A frame that decodes must lay out
// and re-encode to the very same bytes.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <cstdlib>

#include "frame.h"

using namespace tarnsocket;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FrameHeader header;
  if (size < sizeof header) return 0;
  memcpy(&header, data, sizeof header);
  if (ValidateHeader(header) != FrameError::kNone) return 0;
  const uint8_t* body = data + sizeof header;
  const size_t available = size - sizeof header;
  if (header.type == kFrameInvoke) {
    const size_t meta_size = InvokeMetaSize(header.counts);
    if (available < meta_size) return 0;
    InvokeMeta meta;
    if (DecodeInvokeMeta(header, body, &meta) != FrameError::kNone) return 0;
    uint64_t offsets[kMaxSlots];
    const uint64_t arena = LayoutArena(meta, offsets);
    uint64_t previous_end = 0;
    for (unsigned i = 0; i < meta.in_bufs; ++i) {
      if (offsets[i] < previous_end) abort();
      previous_end = offsets[i] + meta.sizes[i] + kBufferSlack;
      if (previous_end > arena) abort();
    }
    uint8_t head[kMaxHeadSize];
    const size_t used = EncodeInvokeHead(head, header.call_id, header.handle, header.code,
                                         header.counts, meta.sizes, meta.objects, header.depth);
    if (used != sizeof header + meta_size || memcmp(head, data, used) != 0) abort();
  } else if (header.type == kFrameReply) {
    if (available < header.body_size) return 0;
    ObjectRef refs[kMaxSlots];
    if (DecodeReplyRefs(header, body, refs) != FrameError::kNone) return 0;
    uint8_t out[kMaxHeadSize];
    const size_t used =
        EncodeReply(out, header.call_id, static_cast<int32_t>(header.code), header.counts, refs);
    if (used != sizeof header + header.body_size || memcmp(out, data, used) != 0) abort();
  }
  return 0;
}
