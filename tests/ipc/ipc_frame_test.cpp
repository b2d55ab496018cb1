// The frame codec alone: which headers pass, and where a call's buffers land.
#include <string.h>

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

TEST(FrameTest, InvokeRoundTripAndArenaLayout) {
  const uint32_t counts = OBJECT_COUNTS(3, 0, 2, 1);
  const uint64_t sizes[3] = {5, 0, 70};
  const ObjectRef refs[2] = {{kRefSenderExport, 9}, {kRefReceiverExport, 0}};
  uint8_t head[kMaxHeadSize];
  EncodeInvokeHead(head, 11, 4, 0x10001, counts, sizes, refs, 7);
  FrameHeader header;
  memcpy(&header, head, sizeof header);
  EXPECT_EQ(header.body_size, InvokeMetaSize(counts) + 75);
  EXPECT_EQ(header.depth, 7);
  ASSERT_EQ(ValidateHeader(header), FrameError::kNone);
  InvokeMeta meta;
  ASSERT_EQ(DecodeInvokeMeta(header, head + sizeof header, &meta), FrameError::kNone);
  EXPECT_EQ(meta.in_objs, 2u);
  EXPECT_EQ(meta.out_objs, 1u);
  ASSERT_EQ(meta.in_bufs, 3u);
  EXPECT_EQ(memcmp(meta.sizes, sizes, sizeof sizes), 0);
  EXPECT_EQ(memcmp(meta.objects, refs, sizeof refs), 0);

  uint64_t offsets[kMaxSlots];
  const uint64_t arena = LayoutArena(meta, offsets);
  for (unsigned i = 0; i < meta.in_bufs; ++i) {
    const uint64_t end = i + 1 < meta.in_bufs ? offsets[i + 1] : arena;
    EXPECT_EQ(offsets[i] % kBufferAlign, 0u);
    EXPECT_GE(end - offsets[i] - meta.sizes[i], kBufferSlack) << i;
  }
}

}  // namespace
}  // namespace tarnsocket
