#include "deauth/genl_message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

TEST(GenlBuilderTest, ChecksRoomAtTheAlignedEnd) {
  struct Case {
    const char* value;  // a string attribute of type 5; null: the genl header
    uint32_t len;
    size_t size;
    uint32_t new_len;
    std::vector<uint8_t> written;  // at the aligned end (the genl header: at 16); none: no room
  };
  const Case cases[] = {
      {nullptr, 16, 20, 20, {3, 1, 0, 0}},  // exact fit
      {nullptr, 16, 19, 16, {}},            // one byte over
      {nullptr, 17, 24, 24, {3, 1, 0, 0}},  // the length is aligned first
      {nullptr, 17, 23, 17, {}},
      {"abc", 20, 28, 28, {8, 0, 5, 0, 'a', 'b', 'c', 0}},  // the terminator must fit too
      {"abcd", 20, 28, 20, {}},
  };
  for (const Case& c : cases) {
    uint32_t words[16] = {};  // 4-aligned and zero-filled, as the daemon's buffer
    nlmsghdr* m = static_cast<nlmsghdr*>(static_cast<void*>(words));
    const uint8_t* bytes = static_cast<const uint8_t*>(static_cast<void*>(words));
    m->nlmsg_len = c.len;
    const int result =
        c.value == nullptr ? AddGenlHeader(m, c.size, 3, 1) : AddAttribute(m, c.size, 5, c.value);
    const size_t at = c.value == nullptr ? 16 : (c.len + 3u) & ~3u;
    EXPECT_EQ(result, c.written.empty() ? -1 : 0) << at << " " << c.size;
    EXPECT_EQ(m->nlmsg_len, c.new_len);
    // A failed copy may leave bytes behind, but no attribute header.
    const std::vector<uint8_t> expected = c.written.empty() ? std::vector<uint8_t>(4) : c.written;
    EXPECT_EQ(std::vector<uint8_t>(bytes + at, bytes + at + expected.size()), expected);
  }
}

TEST(AttrParserTest, EndsOnZeroLengthAndOnLengthsBeyondTheRun) {
  struct Case {
    const char* name;
    std::vector<uint16_t> lengths;  // nla_len of the attributes, each placed by its step
    uint64_t run;
    size_t yielded;
    uint64_t remaining_after;
  };
  const Case cases[] = {
      {"two then the end", {8, 5}, 16, 2, 0},     {"zero length", {0, 8}, 40, 0, 0},
      {"claims beyond the run", {200}, 40, 0, 0}, {"second claims beyond", {8, 36}, 40, 1, 0},
      {"unpadded tail", {8, 5}, 13, 1, 0},        {"too short for a header", {8}, 3, 0, 3},
      {"length 1 steps by 4", {1, 8}, 12, 2, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    uint32_t words[16] = {};
    uint8_t* bytes = static_cast<uint8_t*>(static_cast<void*>(words));
    size_t off = 0;
    for (uint16_t len : c.lengths) {
      memcpy(bytes + off, &len, 2);
      off += (len + 3u) & ~3u;
      if (len == 0) break;
    }
    AttrParser parser = AttrParser::Over(words, c.run);
    size_t yielded = 0;
    while (const nlattr* attr = parser.Next()) EXPECT_EQ(attr->nla_len, c.lengths[yielded++]);
    EXPECT_EQ(yielded, c.yielded);
    EXPECT_EQ(parser.remaining, c.remaining_after);
    EXPECT_EQ(parser.Next(), nullptr) << "an ended parser stays ended";
  }
}

}  // namespace
