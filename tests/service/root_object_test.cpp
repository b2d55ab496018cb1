// The root object's refusals. (The ids it knows are used end to end.)
#include "service/root_object.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

// A recognisable non-null object, to tell "cleared" from "untouched".
const Object kSentinel{root_invoke, reinterpret_cast<void*>(0x5e17)};

std::vector<uint8_t> Id(uint32_t id) {
  return {static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id >> 16),
          static_cast<uint8_t>(id >> 24)};
}

// All answer 2; an unknown id clears the output, a malformed call leaves it.
TEST(RootObject, UnknownIdsClearTheOutputMalformedCallsLeaveIt) {
  struct Case {
    uint32_t op, counts;
    std::vector<uint8_t> id;
    bool cleared;
  };
  std::vector<Case> cases = {
      {0x10000, 0x1001, Id(3), true},       // only the op's low 16 bits count
      {0, 0x1002, Id(1), false},            // two input buffers declared
      {0, 0x1000, Id(1), false},            // no input buffer
      {0, 0x1101, Id(1), false},            // an extra input object
      {0, 0x1001, {1, 0, 0, 0, 0}, false},  // five-byte id
      {0, 0x1001, {1, 0, 0}, false},        // three-byte id
      {1, 0x1001, Id(1), false},            // no second method
      {0x10001, 0x1001, Id(1), false},      // low 16 bits are 1
  };
  for (uint32_t id : {0u, 3u, 29u, 31u, 0xFFFFFFFFu}) cases.push_back({0, 0x1001, Id(id), true});
  for (Case& c : cases) {
    ObjectArg args[2];
    args[0].b = {c.id.data(), c.id.size()};
    args[1].o = kSentinel;
    EXPECT_EQ(root_invoke(nullptr, c.op, args, c.counts), OBJECT_ERROR_INVALID)
        << c.op << " " << c.counts << " " << c.id.size();
    EXPECT_EQ(args[1].o.invoke, c.cleared ? nullptr : kSentinel.invoke);
    EXPECT_EQ(args[1].o.context, c.cleared ? nullptr : kSentinel.context);
  }
}

}  // namespace
