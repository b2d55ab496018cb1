#include "deauth/genl_message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

// A zero-filled, 4-aligned message buffer holding a bare netlink header.
struct Message {
  explicit Message(size_t capacity) : words((capacity + 3) / 4 + 1, 0) { header()->nlmsg_len = 16; }
  nlmsghdr* header() { return static_cast<nlmsghdr*>(static_cast<void*>(words.data())); }
  uint8_t* bytes() { return static_cast<uint8_t*>(static_cast<void*>(words.data())); }
  std::vector<uint8_t> Snapshot(size_t n) { return std::vector<uint8_t>(bytes(), bytes() + n); }
  std::vector<uint32_t> words;
};

uint16_t Load16(const uint8_t* p) {
  uint16_t v;
  memcpy(&v, p, 2);
  return v;
}

TEST(AddGenlHeaderTest, RoomIsCheckedAtTheAlignedEnd) {
  struct Case {
    uint32_t len;
    size_t size;
    int result;
    uint32_t new_len;
  };
  const Case cases[] = {
      {16, 4096, 0, 20}, {16, 20, 0, 20},  // exactly four bytes of room
      {16, 19, -1, 16},                    // one short
      {16, 16, -1, 16},  {17, 24, 0, 24},  // an unaligned length is rounded up first
      {17, 23, -1, 17},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "len " << c.len << " size " << c.size);
    Message m(32);
    m.header()->nlmsg_len = c.len;
    const std::vector<uint8_t> before = m.Snapshot(32);
    EXPECT_EQ(AddGenlHeader(m.header(), c.size, 3, 1), c.result);
    EXPECT_EQ(m.header()->nlmsg_len, c.new_len);
    if (c.result != 0) {
      EXPECT_EQ(m.Snapshot(32), before);
    } else {
      EXPECT_EQ(m.bytes()[16], 3);
      EXPECT_EQ(m.bytes()[17], 1);
      EXPECT_EQ(Load16(m.bytes() + 18), 0);
    }
  }
}

TEST(AddGenlHeaderTest, AlwaysWritesRightBehindTheNetlinkHeader) {
  // On a longer message the header still lands at bytes 16-19.
  Message m(64);
  m.header()->nlmsg_len = 32;
  memset(m.bytes() + 16, 0xAA, 16);
  ASSERT_EQ(AddGenlHeader(m.header(), 64, 9, 2), 0);
  EXPECT_EQ(m.bytes()[16], 9);
  EXPECT_EQ(m.bytes()[17], 2);
  EXPECT_EQ(Load16(m.bytes() + 18), 0);
  EXPECT_EQ(m.bytes()[20], 0xAA);
  EXPECT_EQ(m.header()->nlmsg_len, 36u);
}

TEST(AddAttributeTest, FamilyQueryIsThirtyTwoBytes) {
  Message m(4096);
  m.header()->nlmsg_type = GENL_ID_CTRL;
  ASSERT_EQ(AddGenlHeader(m.header(), 4096, CTRL_CMD_GETFAMILY, 1), 0);
  EXPECT_EQ(m.header()->nlmsg_len, 20u);
  ASSERT_EQ(AddAttribute(m.header(), 4096, CTRL_ATTR_FAMILY_NAME, "nl80211"), 0);
  EXPECT_EQ(m.header()->nlmsg_len, 32u);
  const uint8_t expected[] = {32, 0, 0, 0, 16, 0, 0, 0, 0,   0,   0,   0,   0,   0,   0,   0,
                              3,  1, 0, 0, 12, 0, 2, 0, 'n', 'l', '8', '0', '2', '1', '1', 0};
  EXPECT_EQ(m.Snapshot(32), std::vector<uint8_t>(expected, expected + sizeof expected));
  EXPECT_EQ(m.bytes()[32], 0) << "nothing written past the message";
}

TEST(AddAttributeTest, StringMustFitWithItsTerminator) {
  struct Case {
    size_t size;
    const char* value;
    int result;
    uint32_t new_len;
  };
  const Case cases[] = {
      {28, "abc", 0, 28},                     // L + 1 == room - 4 exactly
      {28, "abcd", -1, 20},                   // one byte longer
      {28, "", 0, 25},      {25, "", 0, 25},  // room of five: header and terminator
      {24, "", -1, 20},                       // room below five
      {20, "a", -1, 20},                      // offset at the end of the buffer
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "size " << c.size << " value \"" << c.value << "\"");
    Message m(32);
    m.header()->nlmsg_len = 20;
    EXPECT_EQ(AddAttribute(m.header(), c.size, 5, c.value), c.result);
    EXPECT_EQ(m.header()->nlmsg_len, c.new_len);
    if (c.result == 0) {
      EXPECT_EQ(Load16(m.bytes() + 20), 5 + strlen(c.value));
      EXPECT_EQ(Load16(m.bytes() + 22), 5);
      EXPECT_STREQ(reinterpret_cast<const char*>(m.bytes() + 24), c.value);
    } else {
      EXPECT_EQ(Load16(m.bytes() + 20), 0) << "no attribute header on failure";
    }
    EXPECT_LE(m.header()->nlmsg_len, c.size);
  }
}

TEST(AddAttributeTest, SecondAttributeStartsAligned) {
  Message m(64);
  m.header()->nlmsg_len = 20;
  ASSERT_EQ(AddAttribute(m.header(), 64, 1, "ab"), 0);
  EXPECT_EQ(m.header()->nlmsg_len, 27u);  // left unaligned
  ASSERT_EQ(AddAttribute(m.header(), 64, 2, "xyz"), 0);
  EXPECT_EQ(m.header()->nlmsg_len, 36u);
  EXPECT_EQ(m.bytes()[27], 0) << "padding stays as the zero-filled buffer held it";
  EXPECT_EQ(Load16(m.bytes() + 28), 8);
  EXPECT_EQ(Load16(m.bytes() + 30), 2);
  EXPECT_STREQ(reinterpret_cast<const char*>(m.bytes() + 32), "xyz");
}

// An attribute at the start of a 4-aligned buffer.
struct Attr {
  Attr(uint16_t len, uint16_t type, const std::string& payload) : words(16, 0) {
    uint8_t* b = bytes();
    memcpy(b, &len, 2);
    memcpy(b + 2, &type, 2);
    memcpy(b + 4, payload.data(), payload.size());
  }
  uint8_t* bytes() { return static_cast<uint8_t*>(static_cast<void*>(words.data())); }
  const nlattr* get() { return AttrAt(words.data(), 0); }
  std::vector<uint32_t> words;
};

TEST(ReadAttributeTest, CopiesOnlyWhenThePayloadIsLongEnough) {
  Attr attr(6, 1, std::string("\x34\x12\x78\x56", 4));
  uint32_t out = 0xDEADBEEF;
  EXPECT_FALSE(ReadAttribute(attr.get(), &out, 4));
  EXPECT_EQ(out, 0xDEADBEEFu);
  uint16_t half = 0;
  EXPECT_TRUE(ReadAttribute(attr.get(), &half, 2));
  EXPECT_EQ(half, 0x1234);

  Attr longer(12, 1, std::string("\x01\x00\x00\x00\x02\x00\x00\x00", 8));
  EXPECT_TRUE(ReadAttribute(longer.get(), &out, 4));
  EXPECT_EQ(out, 1u);
}

TEST(CheckStringAttrTest, NeedsATerminatorInsideThePayload) {
  struct Case {
    uint16_t len;
    std::string payload;
    bool ok;
  };
  const Case cases[] = {
      {4, "", false},
      {3, "", false},
      {7, "abc", false},  // three characters, no terminator (the byte after is not looked at)
      {7, std::string("ab\0", 3), true},
      {7, std::string("a\0b", 3), true},  // the NUL need not be last
      {5, std::string("\0", 1), true},
  };
  for (const Case& c : cases) {
    Attr attr(c.len, 2, c.payload);
    EXPECT_EQ(CheckStringAttr(attr.get()), c.ok) << "len " << c.len;
  }
}

TEST(AttrParserTest, WalksAndEndsOnMalformedRuns) {
  struct Case {
    const char* name;
    std::vector<uint16_t> lengths;  // nla_len of the attributes, placed by their steps
    uint64_t run;                   // bytes in the run
    size_t yielded;
    uint64_t remaining_after;
  };
  const Case cases[] = {
      {"two then the end", {8, 5}, 16, 2, 0},     {"zero length", {0, 8}, 40, 0, 0},
      {"claims beyond the run", {200}, 40, 0, 0}, {"second claims beyond", {8, 36}, 40, 1, 0},
      {"too short for a header", {8}, 3, 0, 3},   {"length 1 steps by 4", {1, 8}, 12, 2, 0},
      {"unpadded tail", {8, 5}, 13, 1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<uint32_t> words(64, 0);
    uint8_t* b = static_cast<uint8_t*>(static_cast<void*>(words.data()));
    size_t off = 0;
    for (uint16_t len : c.lengths) {
      memcpy(b + off, &len, 2);
      off += (len + 3u) & ~3u;
      if (len == 0) break;
    }
    AttrParser parser = AttrParser::Over(words.data(), c.run);
    size_t yielded = 0;
    while (const nlattr* attr = parser.Next()) {
      EXPECT_EQ(attr->nla_len, c.lengths[yielded]);
      ++yielded;
    }
    EXPECT_EQ(yielded, c.yielded);
    EXPECT_EQ(parser.remaining, c.remaining_after);
    EXPECT_EQ(parser.Next(), nullptr) << "an ended parser stays ended";
  }
}

TEST(AttrParserTest, NestedRunOfAShortAttributeIsEmpty) {
  for (uint16_t len : {0, 1, 3, 4, 7}) {
    Attr attr(len, CTRL_ATTR_MCAST_GROUPS, "");
    EXPECT_TRUE(AttrParser::Nested(attr.get()).Exhausted()) << "len " << len;
  }
  EXPECT_EQ(AttrParser().Next(), nullptr);
}

}  // namespace
