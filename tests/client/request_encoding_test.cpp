// Request buffers built by the client library: sizes, record layout and the
// split of MAC addresses into the daemon's two halves.
#include "teskclient/request_encoding.h"

#include <cstring>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "teskclient/callback_object.h"

namespace {

using teskclient::Bytes;

template <typename T>
T At(const Bytes& bytes, size_t index) {
  T record;
  memcpy(&record, bytes.data() + index * sizeof(T), sizeof(T));
  return record;
}

TEST(MacAddressTest, ParsesOnlyWellFormedText) {
  struct Case {
    const char* text;
    bool ok;
  } cases[] = {
      {"aa:bb:cc:dd:ee:ff", true},  {"AA-BB-CC-DD-EE-01", true},
      {"aa:bb:cc:dd:ee", false},    {"aa:bb:cc:dd:ee:fff", false},
      {"aa:bb:cc:dd:ee:f", false},  {"gg:bb:cc:dd:ee:ff", false},
      {"aa.bb.cc.dd.ee.ff", false}, {"", false},
  };
  for (const Case& c : cases) {
    teskclient::MacAddress mac;
    EXPECT_EQ(teskclient::ParseMacAddress(c.text, &mac), c.ok) << c.text;
  }
  teskclient::MacAddress mac;
  ASSERT_TRUE(teskclient::ParseMacAddress("02:11:22:a3:b4:c5", &mac));
  const WifiMacAddress wire = teskclient::ToWire(mac);
  EXPECT_EQ(wire.hi24, 0x021122u);
  EXPECT_EQ(wire.lo24, 0xA3B4C5u);
  EXPECT_EQ(teskclient::FormatMacAddress(teskclient::FromWire(0xFFA3B4C5, 0x77021122)),
            "02:11:22:a3:b4:c5");
}

TEST(RequestEncodingTest, DiscoveryBuffersHoldWholeRecords) {
  teskclient::DiscoveryScanPlan plan;
  plan.params.mode = 3;
  plan.params.timeout = -5;
  plan.params.reserved[0] = 9;
  plan.channels = {1, 6, 11};
  plan.ssids = {Bytes{'h', 'o', 'm', 'e'}, Bytes(32, 'x'), Bytes{}};
  plan.bssids = {teskclient::MacAddress{1, 2, 3, 4, 5, 6}};
  teskclient::EncodedDiscoveryScan encoded;
  std::string error;
  ASSERT_TRUE(teskclient::EncodeDiscoveryScan(plan, &encoded, &error));
  EXPECT_EQ(encoded.params.size(), 32u);
  EXPECT_EQ(At<DiscoveryScanParams>(encoded.params, 0).timeout, -5);
  EXPECT_EQ(At<DiscoveryScanParams>(encoded.params, 0).reserved[0], 0) << "reserved is zero";
  EXPECT_EQ(encoded.channels.size(), 12u);
  EXPECT_EQ(At<uint32_t>(encoded.channels, 2), 11u);
  ASSERT_EQ(encoded.ssids.size(), 3u * 36);
  EXPECT_EQ(At<WifiSsid>(encoded.ssids, 0).length, 4);
  EXPECT_EQ(memcmp(At<WifiSsid>(encoded.ssids, 0).ssid, "home", 4), 0);
  EXPECT_EQ(At<WifiSsid>(encoded.ssids, 1).length, 32);
  EXPECT_EQ(At<WifiSsid>(encoded.ssids, 2).length, 0);
  ASSERT_EQ(encoded.bssids.size(), 8u);
  EXPECT_EQ(At<WifiMacAddress>(encoded.bssids, 0).hi24, 0x010203u);
  EXPECT_EQ(At<WifiMacAddress>(encoded.bssids, 0).lo24, 0x040506u);

  plan.ssids.push_back(Bytes(33, 'y'));
  EXPECT_FALSE(teskclient::EncodeDiscoveryScan(plan, &encoded, &error));
  EXPECT_FALSE(error.empty());
}

TEST(RequestEncodingTest, RangingTargetsAre52Or64Bytes) {
  teskclient::RangingScanPlan plan;
  plan.ts = -1;
  teskclient::RangingTargetPlan target;
  target.mac = {0xAA, 0xBB, 0xCC, 0x01, 0x02, 0x03};
  target.peer = {0x10, 0x20, 0x30, 0x40, 0x50, 0x60};
  target.values.nodeEnum2 = 3;
  target.values.padding[1] = 0xFF;
  target.periodicValue1 = 250;
  plan.targets = {target, target};

  const teskclient::EncodedRangingScan single = teskclient::EncodeRangingScan(plan);
  EXPECT_EQ(single.op, 0u);
  ASSERT_EQ(single.targets.size(), 104u);
  const auto record = At<RangingTarget>(single.targets, 1);
  EXPECT_EQ(record.macHi24, 0xAABBCCu);
  EXPECT_EQ(record.macLo24, 0x010203u);
  EXPECT_EQ(record.peerHi24, 0x102030u);
  EXPECT_EQ(record.peerLo24, 0x405060u);
  EXPECT_EQ(record.nodeEnum2, 3u);
  EXPECT_EQ(record.padding[1], 0) << "padding is zero";
  EXPECT_EQ(At<int64_t>(single.ts, 0), -1);
  EXPECT_EQ(single.ts.size(), 8u);

  plan.periodic = true;
  const teskclient::EncodedRangingScan periodic = teskclient::EncodeRangingScan(plan);
  EXPECT_EQ(periodic.op, 1u);
  ASSERT_EQ(periodic.targets.size(), 128u);
  EXPECT_EQ(At<PeriodicRangingTarget>(periodic.targets, 1).periodicValue1, 250u);
  EXPECT_EQ(At<PeriodicRangingTarget>(periodic.targets, 1).node.macLo24, 0x010203u);
}

TEST(CallbackObjectTest, CountsReferencesAndForwardsDeliveries) {
  int calls = 0;
  uint32_t last_counts = 0;
  auto alive = std::make_shared<int>(0);
  Object callback = teskclient::MakeCallbackObject(
      [&calls, &last_counts, alive](const ObjectArg*, uint32_t counts) {
        ++calls;
        last_counts = counts;
      });
  EXPECT_EQ(alive.use_count(), 2);
  EXPECT_EQ(callback.invoke(callback.context, 0x10000, nullptr, 4), 0);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(last_counts, 4u);
  EXPECT_EQ(callback.invoke(callback.context, 1, nullptr, 0), 2);
  EXPECT_EQ(callback.invoke(callback.context, OBJECT_OP_RETAIN, nullptr, 0), 0);
  EXPECT_EQ(callback.invoke(callback.context, OBJECT_OP_RELEASE, nullptr, 0), 0);
  EXPECT_EQ(alive.use_count(), 2) << "one reference left";
  ObjectRelease(callback);
  EXPECT_EQ(alive.use_count(), 1) << "the last release destroys the handler";
}

}  // namespace
