// One received invocation, decoded: its buffers in an arena with zeroed
// slack behind each, its objects already resolved to local objects or
// proxies, and the served target.
#ifndef TARNSOCKET_INVOKE_FRAME_H_
#define TARNSOCKET_INVOKE_FRAME_H_

#include <stdint.h>

#include <tesk/object.h>

#include "arena.h"
#include "frame.h"

namespace tarnsocket {

struct InvokeFrame {
  FrameHeader header{};
  InvokeMeta meta;
  uint64_t offsets[kMaxSlots] = {};
  Arena arena;
  Object target = {nullptr, nullptr};
  uint32_t target_handle = 0;
  // A reference each, dropped after the call: proxies, or our own objects
  // passed back.
  Object in_objects[kMaxSlots] = {};
  unsigned resolved = 0;  // input objects resolved so far
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_INVOKE_FRAME_H_
