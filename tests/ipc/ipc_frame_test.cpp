// The frame codec alone: which headers pass. (Encoding, decoding and the
// arena layout are fuzzed; the IPC tests check every buffer served.)
#include <tesk/object.h>

#include "frame.h"
#include "gtest/gtest.h"

namespace tarnsocket {
namespace {

// Header fields: body_size, type, reserved, call_id, handle, code, counts.
TEST(FrameTest, ValidatesHeaders) {
  const struct {
    const char* name;
    FrameHeader header;
    FrameError expected;
  } cases[] = {
      {"op in high bits", {0, kFrameInvoke, 0, {}, 1, 0, 0x10000, 0}, FrameError::kNone},
      {"largest", {kMaxBodySize, kFrameInvoke, 0, {}, 1, 0, 0, 1}, FrameError::kNone},
      {"too large", {kMaxBodySize + 1, kFrameInvoke, 0, {}, 1, 0, 0, 0}, FrameError::kTooLarge},
      {"body smaller than meta", {7, kFrameInvoke, 0, {}, 1, 0, 0, 1}, FrameError::kBadSize},
      {"output buffers", {0, kFrameInvoke, 0, {}, 1, 0, 0, 0x10}, FrameError::kOutputBuffers},
      {"counts high bits", {0, kFrameInvoke, 0, {}, 1, 0, 0, 0x10000}, FrameError::kBadCounts},
      {"retain as call", {0, kFrameInvoke, 0, {}, 1, 0, 0x1FFFE, 0}, FrameError::kBadOp},
      {"reserved byte", {0, kFrameInvoke, 0, {0, 1}, 1, 0, 0, 0}, FrameError::kBadReserved},
      {"depth of a call", {0, kFrameInvoke, 255, {}, 1, 0, 0, 0}, FrameError::kNone},
      {"depth of a reply", {0, kFrameReply, 1, {}, 1, 0, 0, 0}, FrameError::kBadReserved},
      {"unknown type", {0, 0, 0, {}, 1, 0, 0, 0}, FrameError::kBadType},
      {"reply", {16, kFrameReply, 0, {}, 1, 0, 2, 2}, FrameError::kNone},
      {"reply too many", {128, kFrameReply, 0, {}, 1, 0, 0, 16}, FrameError::kBadCounts},
      {"reply with handle", {0, kFrameReply, 0, {}, 1, 3, 0, 0}, FrameError::kBadReserved},
      {"release", {0, kFrameRelease, 0, {}, 0, 1, 3, 0}, FrameError::kNone},
      {"release of nothing", {0, kFrameRelease, 0, {}, 0, 1, 0, 0}, FrameError::kBadReleaseCount},
      {"release with call id", {0, kFrameRelease, 0, {}, 4, 1, 1, 0}, FrameError::kBadReserved},
  };
  for (const auto& c : cases) EXPECT_EQ(ValidateHeader(c.header), c.expected) << c.name;
}

}  // namespace
}  // namespace tarnsocket
