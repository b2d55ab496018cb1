#include "service/root_object.h"

#include "deauth/deauth_monitor_object.h"
#include "scan/discovery_scan.h"
#include "scan/ranging_scan.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include <tesk/interfaces.h>

namespace {

// A recognisable non-null object, to tell "cleared" from "untouched".
int32_t Sentinel(void*, uint32_t, ObjectArg*, uint32_t) {
  return 0;
}
const Object kSentinel{Sentinel, reinterpret_cast<void*>(0x5e17)};

struct Call {
  uint32_t op;
  uint32_t counts;
  std::vector<uint8_t> id_bytes;
};

int32_t Invoke(const Call& call, Object* out) {
  std::vector<uint8_t> bytes = call.id_bytes;
  ObjectArg args[2];
  args[0].b = {bytes.data(), bytes.size()};
  args[1].o = kSentinel;
  const int32_t result = root_invoke(nullptr, call.op, args, call.counts);
  *out = args[1].o;
  return result;
}

std::vector<uint8_t> Id(uint32_t id) {
  return {static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id >> 16),
          static_cast<uint8_t>(id >> 24)};
}

TEST(RootObject, KnownInterfaceIdsHandOutTheirStatelessObjects) {
  const struct {
    uint32_t id;
    Object expected;
  } interfaces[] = {
      {kInterfaceDiscoveryScan, CreateVelaDiscoveryScan()},
      {kInterfaceRangingScan, CreateVelaRangingScan()},
      {kInterfaceDeauthMonitor, CreateDeauthMonitor()},
  };
  for (const auto& interface : interfaces) {
    Object out;
    EXPECT_EQ(Invoke({0, 0x1001, Id(interface.id)}, &out), OBJECT_OK) << interface.id;
    EXPECT_NE(out.invoke, nullptr);
    EXPECT_EQ(out.invoke, interface.expected.invoke) << interface.id;
    EXPECT_EQ(out.context, nullptr) << interface.id;
  }
}

TEST(RootObject, UnknownInterfaceIdsClearTheOutputAndAnswerInvalid) {
  for (uint32_t id : {0u, 3u, 29u, 31u, 0xFFFFFFFFu}) {
    Object out;
    EXPECT_EQ(Invoke({0, 0x1001, Id(id)}, &out), OBJECT_ERROR_INVALID) << id;
    EXPECT_TRUE(IsNullObject(out)) << id;
    EXPECT_EQ(out.context, nullptr) << id;
  }
}

TEST(RootObject, MalformedInvocationsLeaveTheOutputUntouched) {
  const Call malformed[] = {
      {0, 0x1002, Id(1)},            // two input buffers declared
      {0, 0x1000, Id(1)},            // no input buffer
      {0, 0x1101, Id(1)},            // an extra input object
      {0, 0x1001, {1, 0, 0, 0, 0}},  // five-byte id
      {0, 0x1001, {1, 0, 0}},        // three-byte id
      {1, 0x1001, Id(1)},            // no second method
      {0x10001, 0x1001, Id(1)},      // low 16 bits are 1
  };
  for (const Call& call : malformed) {
    Object out;
    EXPECT_EQ(Invoke(call, &out), OBJECT_ERROR_INVALID) << call.op << " " << call.counts;
    EXPECT_EQ(out.invoke, kSentinel.invoke);
    EXPECT_EQ(out.context, kSentinel.context);
  }
}

TEST(RootObject, OnlyTheLowSixteenBitsOfTheOpCount) {
  Object plain, high;
  EXPECT_EQ(Invoke({0, 0x1001, Id(3)}, &plain), OBJECT_ERROR_INVALID);
  EXPECT_EQ(Invoke({0x10000, 0x1001, Id(3)}, &high), OBJECT_ERROR_INVALID);
  EXPECT_TRUE(IsNullObject(high));  // reached the id lookup, like op 0
}

}  // namespace
