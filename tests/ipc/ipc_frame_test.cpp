// The frame codec alone: what it accepts, what it refuses, and where the
// buffers of a call land.
#include <string.h>

#include <vector>

#include "frame.h"
#include "gtest/gtest.h"
#include "service/object.h"

namespace tarnsocket {
namespace {

FrameHeader Header(uint8_t type, uint32_t body, uint32_t code, uint32_t counts) {
  FrameHeader header{};
  header.type = type;
  header.body_size = body;
  header.code = code;
  header.counts = counts;
  return header;
}

struct HeaderCase {
  const char* name;
  FrameHeader header;
  FrameError expected;
};

TEST(FrameTest, ValidatesHeaders) {
  FrameHeader reserved = Header(kFrameInvoke, 0, 0, 0);
  reserved.reserved[2] = 1;
  FrameHeader reply_handle = Header(kFrameReply, 0, 0, 0);
  reply_handle.handle = 3;
  FrameHeader release_call = Header(kFrameRelease, 0, 1, 0);
  release_call.call_id = 4;
  const HeaderCase cases[] = {
      {"plain call", Header(kFrameInvoke, 0, 0, 0), FrameError::kNone},
      {"op in high bits", Header(kFrameInvoke, 0, 0x10000, 0), FrameError::kNone},
      {"call with one buffer", Header(kFrameInvoke, 8, 0, 1), FrameError::kNone},
      {"body smaller than meta", Header(kFrameInvoke, 7, 0, 1), FrameError::kBadSize},
      {"too large", Header(kFrameInvoke, kMaxBodySize + 1, 0, 0), FrameError::kTooLarge},
      {"largest", Header(kFrameInvoke, kMaxBodySize, 0, 1), FrameError::kNone},
      {"output buffers", Header(kFrameInvoke, 0, 0, 0x10), FrameError::kOutputBuffers},
      {"counts high bits", Header(kFrameInvoke, 0, 0, 0x10000), FrameError::kBadCounts},
      {"retain as call", Header(kFrameInvoke, 0, 0x1FFFE, 0), FrameError::kBadOp},
      {"release as call", Header(kFrameInvoke, 0, 0xFFFF, 0), FrameError::kBadOp},
      {"reserved byte", reserved, FrameError::kBadReserved},
      {"unknown type", Header(0, 0, 0, 0), FrameError::kBadType},
      {"reply", Header(kFrameReply, 16, 2, 2), FrameError::kNone},
      {"reply size mismatch", Header(kFrameReply, 8, 0, 2), FrameError::kBadSize},
      {"reply too many", Header(kFrameReply, 128, 0, 16), FrameError::kBadCounts},
      {"reply with handle", reply_handle, FrameError::kBadReserved},
      {"release", Header(kFrameRelease, 0, 3, 0), FrameError::kNone},
      {"release of nothing", Header(kFrameRelease, 0, 0, 0), FrameError::kBadReleaseCount},
      {"release with body", Header(kFrameRelease, 8, 1, 0), FrameError::kBadSize},
      {"release with call id", release_call, FrameError::kBadReserved},
  };
  for (const HeaderCase& c : cases) {
    EXPECT_EQ(ValidateHeader(c.header), c.expected) << c.name;
  }
}

TEST(FrameTest, InvokeRoundTrip) {
  const uint32_t counts = OBJECT_COUNTS(3, 0, 2, 1);
  const uint64_t sizes[3] = {5, 0, 70};
  const ObjectRef refs[2] = {{kRefSenderExport, 9}, {kRefReceiverExport, 0}};
  uint8_t head[kMaxHeadSize];
  const size_t used = EncodeInvokeHead(head, 11, 4, 0x10001, counts, sizes, refs);
  FrameHeader header;
  memcpy(&header, head, sizeof header);
  EXPECT_EQ(used, sizeof header + InvokeMetaSize(counts));
  EXPECT_EQ(header.body_size, InvokeMetaSize(counts) + 75);
  ASSERT_EQ(ValidateHeader(header), FrameError::kNone);
  InvokeMeta meta;
  ASSERT_EQ(DecodeInvokeMeta(header, head + sizeof header, &meta), FrameError::kNone);
  EXPECT_EQ(meta.in_bufs, 3u);
  EXPECT_EQ(meta.in_objs, 2u);
  EXPECT_EQ(meta.out_objs, 1u);
  EXPECT_EQ(meta.sizes[2], 70u);
  EXPECT_EQ(meta.objects[0].handle, 9u);
  EXPECT_EQ(meta.objects[1].kind, kRefReceiverExport);

  uint64_t offsets[kMaxSlots];
  const uint64_t arena = LayoutArena(meta, offsets);
  for (unsigned i = 0; i < meta.in_bufs; ++i) {
    const uint64_t end = i + 1 < meta.in_bufs ? offsets[i + 1] : arena;
    EXPECT_EQ(offsets[i] % kBufferAlign, 0u);
    EXPECT_GE(end - offsets[i] - meta.sizes[i], kBufferSlack) << i;
  }
}

TEST(FrameTest, RefusesSizesThatDoNotAddUp) {
  struct Case {
    const char* name;
    std::vector<uint64_t> sizes;
    uint32_t data;  // bytes of buffer data the header claims
    FrameError expected;
  };
  const Case cases[] = {
      {"exact", {3, 4}, 7, FrameError::kNone},
      {"short", {3, 4}, 8, FrameError::kBadSize},
      {"long", {3, 5}, 7, FrameError::kBadSize},
      {"wrapping sum", {~0ull, 8}, 7, FrameError::kBadSize},
  };
  for (const Case& c : cases) {
    const uint32_t counts = static_cast<uint32_t>(c.sizes.size());
    FrameHeader header = Header(kFrameInvoke, InvokeMetaSize(counts) + c.data, 0, counts);
    InvokeMeta meta;
    EXPECT_EQ(DecodeInvokeMeta(header, reinterpret_cast<const uint8_t*>(c.sizes.data()), &meta),
              c.expected)
        << c.name;
  }
}

TEST(FrameTest, RefusesBadObjectRefs) {
  const ObjectRef bad[] = {{3, 0}, {kRefNull, 1}};
  for (const ObjectRef& ref : bad) {
    FrameHeader invoke = Header(kFrameInvoke, 8, 0, OBJECT_COUNTS(0, 0, 1, 0));
    InvokeMeta meta;
    EXPECT_EQ(DecodeInvokeMeta(invoke, reinterpret_cast<const uint8_t*>(&ref), &meta),
              FrameError::kBadObjectRef);
    FrameHeader reply = Header(kFrameReply, 8, 0, 1);
    ObjectRef refs[kMaxSlots];
    EXPECT_EQ(DecodeReplyRefs(reply, reinterpret_cast<const uint8_t*>(&ref), refs),
              FrameError::kBadObjectRef);
  }
}

}  // namespace
}  // namespace tarnsocket
