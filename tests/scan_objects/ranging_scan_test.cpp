// The ranging scan object driven directly, with the host location service
// showing each request as sent and answering only what a test delivers.
#include "scan/ranging_scan.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dispatch/vela_dispatcher.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/scan_records.h"
#include "scan/scan_request_records.h"
#include "tests/scan_objects/scan_test_support.h"

namespace {

namespace vt = ky_loc_fw::vela_test;
using ky_loc_fw::VELANodeInfo;
using ky_loc_fw::VELARequest;
using scan_test::AsBytes;
using scan_test::Bytes;
using scan_test::FakeCallback;
using scan_test::FromBytes;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

RangingTarget Target(uint32_t seed) {
  RangingTarget t{};
  t.macLo24 = 0x000100 + seed;
  t.macHi24 = 0x020000 + seed;
  t.nodeValue1 = 2412 + seed;
  t.nodeValue2 = 2422 + seed;
  t.nodeValue3 = 5000 + seed;
  t.nodeEnum1 = 3;
  t.peerLo24 = 0x0A0B0C;
  t.peerHi24 = 0x0D0E0F;
  t.nodeEnum2 = 2;
  t.nodeEnum3 = 4;
  t.nodeEnum4 = 1;
  t.nodeValue4 = 900 + seed;
  t.nodeByte1 = 1;
  t.nodeByte2 = static_cast<uint8_t>(seed);
  return t;
}

class RangingScanTest : public ::testing::Test {
 protected:
  void SetUp() override { scan_test::ManualAnswers(); }
  void TearDown() override {
    if (!IsNullObject(handle_)) ObjectRelease(handle_);
    vt::Reset();
  }

  int32_t Invoke(uint32_t op, Bytes targets, Bytes ts = AsBytes(int64_t{42}),
                 uint32_t counts = kRangingScanCounts) {
    ObjectArg args[4];
    args[0].b = ObjectBuf{targets.data(), targets.size()};
    args[1].b = ObjectBuf{ts.data(), ts.size()};
    args[2].o = callback_.object();
    args[3].o = kNullObject;
    logs_.Clear();
    const int32_t result = scan_object_.invoke(scan_object_.context, op, args, counts);
    handle_ = args[3].o;
    return result;
  }

  vt::SentRequest Sent() {
    const std::vector<vt::SentRequest> sent = vt::SentRequests();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? vt::SentRequest{} : sent.back();
  }

  Object scan_object_ = CreateVelaRangingScan();
  FakeCallback callback_;
  Object handle_ = kNullObject;
  scan_test::LogLines logs_;
};

Bytes Records(const std::vector<RangingTarget>& targets, size_t extra = 0) {
  Bytes bytes;
  for (const RangingTarget& t : targets) {
    const Bytes one = AsBytes(t);
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  bytes.resize(bytes.size() + extra, 0x77);
  return bytes;
}

TEST_F(RangingScanTest, MalformedInvocationsAreRefusedWithoutEffect) {
  struct Case {
    const char* name;
    uint32_t op;
    uint32_t counts;
    size_t ts_size;
  } cases[] = {
      {"release", OBJECT_OP_RELEASE, kRangingScanCounts, 8},
      {"retain", OBJECT_OP_RETAIN, kRangingScanCounts, 8},
      {"op 2", 2, kRangingScanCounts, 8},
      {"no output object", 0, OBJECT_COUNTS(2, 0, 1, 0), 8},
      {"three buffers", 1, OBJECT_COUNTS(3, 0, 1, 1), 8},
      {"4-byte time value", 0, kRangingScanCounts, 4},
      {"9-byte time value", 1, kRangingScanCounts, 9},
  };
  const uint32_t before = VelaDispatcher::Get().next_request_id;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Invoke(c.op, Records({Target(1)}), Bytes(c.ts_size, 0), c.counts), 2);
    EXPECT_TRUE(IsNullObject(handle_));
    EXPECT_THAT(logs_.lines(), IsEmpty());
  }
  EXPECT_EQ(VelaDispatcher::Get().next_request_id, before);
  EXPECT_THAT(vt::SentRequests(), IsEmpty());
}

TEST_F(RangingScanTest, RecordCountFollowsTheBufferSize) {
  struct Case {
    uint32_t op;
    size_t bytes;
    size_t nodes;
    int type;
  } cases[] = {
      {0, 51, 0, VELARequest::REQUEST_TYPE_RANGING_SCAN},
      {0, 100, 1, VELARequest::REQUEST_TYPE_RANGING_SCAN},
      {0, 104, 2, VELARequest::REQUEST_TYPE_RANGING_SCAN},
      {0x10000, 52, 1, VELARequest::REQUEST_TYPE_RANGING_SCAN},
      {1, 63, 0, VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN},
      {1, 130, 2, VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN},
      {0x10001, 64, 1, VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "op " << c.op << ", " << c.bytes << " bytes");
    scan_test::ManualAnswers();
    Bytes targets = Records({Target(1), Target(2), Target(3)});
    targets.resize(c.bytes);
    ASSERT_EQ(Invoke(c.op, targets), 0);
    const vt::SentRequest sent = Sent();
    EXPECT_EQ(sent.requestType, c.type);
    EXPECT_EQ(sent.timestamp, 42);
    const bool periodic = c.type == VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN;
    EXPECT_EQ(periodic ? sent.periodicNodes.size() : sent.nodes.size(), c.nodes);
    ObjectRelease(handle_);
    handle_ = kNullObject;
  }
}

TEST_F(RangingScanTest, SingleTargetFieldsAndLogLine) {
  const uint32_t id = VelaDispatcher::Get().next_request_id + 1;
  ASSERT_EQ(Invoke(0, Records({Target(5)}), AsBytes(int64_t{-7000000000})), 0);
  const vt::SentRequest sent = Sent();
  ASSERT_EQ(sent.nodes.size(), 1u);
  const VELANodeInfo& node = sent.nodes[0];
  EXPECT_EQ(node.mac, vt::MakeMac(0x020005, 0x000105));
  EXPECT_EQ(node.peerMac, vt::MakeMac(0x0D0E0F, 0x0A0B0C));
  EXPECT_EQ(node.nodeValue1, 2417u);
  EXPECT_EQ(node.nodeValue2, 2427u);
  EXPECT_EQ(node.nodeValue3, 5005u);
  EXPECT_EQ(node.nodeEnum1, 3u);
  EXPECT_EQ(node.nodeEnum2, 2u);
  EXPECT_EQ(node.nodeEnum3, 4u);
  EXPECT_EQ(node.nodeEnum4, 1u);
  EXPECT_EQ(node.ftmsPerBurst, VELANodeInfo::kDefaultFtmsPerBurst);
  EXPECT_EQ(node.nodeByte1, 1);
  EXPECT_EQ(node.nodeByte2, 5);
  EXPECT_EQ(node.nodeValue4, 905u);
  EXPECT_EQ(sent.timestamp, -7000000000L);
  EXPECT_THAT(logs_.lines(), ElementsAre("D RangingScan: StartRangingScan ID " +
                                         std::to_string(id) + " ts -7000000000 returning 0\n"));
}

TEST_F(RangingScanTest, PeriodicTargetFieldsAndLogLine) {
  PeriodicRangingTarget record{};
  record.node = Target(9);
  record.periodicValue1 = 1000;
  record.periodicValue2 = 12;
  record.periodicByte = 1;
  ASSERT_EQ(Invoke(1, AsBytes(record)), 0);
  const vt::SentRequest sent = Sent();
  ASSERT_EQ(sent.periodicNodes.size(), 1u);
  EXPECT_EQ(sent.periodicNodes[0].mac, vt::MakeMac(0x020009, 0x000109));
  EXPECT_EQ(sent.periodicNodes[0].nodeValue4, 909u);
  EXPECT_EQ(sent.periodicNodes[0].periodicValue1, 1000u);
  EXPECT_EQ(sent.periodicNodes[0].periodicValue2, 12u);
  EXPECT_EQ(sent.periodicNodes[0].periodicByte, 1);
  EXPECT_EQ(sent.periodicNodes[0].maxBursts, 0u);
  EXPECT_THAT(logs_.lines(), ElementsAre("D RangingScan: StartPeriodicRangingScan returning 0\n"));
}

TEST_F(RangingScanTest, EnumValuesOutOfRangeFallBack) {
  struct Case {
    uint32_t RangingTarget::*field;
    uint32_t value;
    uint32_t expected;
  } cases[] = {
      {&RangingTarget::nodeEnum1, 0, 0},          {&RangingTarget::nodeEnum1, 5, 5},
      {&RangingTarget::nodeEnum1, 6, 0},          {&RangingTarget::nodeEnum2, 0, 0},
      {&RangingTarget::nodeEnum2, 3, 3},          {&RangingTarget::nodeEnum2, 7, 1},
      {&RangingTarget::nodeEnum2, 0xFFFFFFFF, 1}, {&RangingTarget::nodeEnum3, 0, 0},
      {&RangingTarget::nodeEnum3, 5, 0},          {&RangingTarget::nodeEnum4, 3, 3},
      {&RangingTarget::nodeEnum4, 0xFFFFFFFF, 0},
  };
  for (uint32_t op : {0u, 1u}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << "op " << op << " value " << c.value);
      scan_test::ManualAnswers();
      PeriodicRangingTarget record{};
      record.node = Target(1);
      record.node.*c.field = c.value;
      ASSERT_EQ(Invoke(op, op == 0 ? AsBytes(record.node) : AsBytes(record)), 0);
      const vt::SentRequest sent = Sent();
      const VELANodeInfo& node = op == 0 ? sent.nodes.at(0) : sent.periodicNodes.at(0);
      uint32_t got = static_cast<uint32_t>(node.nodeEnum4);
      if (c.field == &RangingTarget::nodeEnum1) got = static_cast<uint32_t>(node.nodeEnum1);
      if (c.field == &RangingTarget::nodeEnum2) got = static_cast<uint32_t>(node.nodeEnum2);
      if (c.field == &RangingTarget::nodeEnum3) got = static_cast<uint32_t>(node.nodeEnum3);
      EXPECT_EQ(got, c.expected);
      ObjectRelease(handle_);
      handle_ = kNullObject;
    }
  }
}

TEST_F(RangingScanTest, RefusedRequestFoldsToOne) {
  for (int send_result : {-1, 1, 17}) {
    scan_test::ManualAnswers(send_result);
    EXPECT_EQ(Invoke(0, Records({Target(1)})), 1);
    EXPECT_TRUE(IsNullObject(handle_));
    EXPECT_EQ(Invoke(1, Bytes{}), 1);
    EXPECT_THAT(logs_.lines(),
                ElementsAre("D RangingScan: StartPeriodicRangingScan returning 1\n"));
  }
  EXPECT_EQ(callback_.retains(), 0);
}

// --- delivery ---

class RangingDeliveryTest : public RangingScanTest {
 protected:
  scan_test::Delivery Answer(ky_loc_fw::VELAResponse* response) {
    vt::DeliverAndWait(response);
    const std::vector<scan_test::Delivery> deliveries = callback_.deliveries();
    EXPECT_EQ(deliveries.size(), 1u);
    return deliveries.empty() ? scan_test::Delivery{} : deliveries[0];
  }
  unsigned Start() {
    EXPECT_EQ(Invoke(0, Records({Target(1)})), 0);
    logs_.Clear();
    return Sent().requestId;
  }
};

TEST_F(RangingDeliveryTest, NoMeasurementsDeliverStatusAndFourEmptyBuffers) {
  const unsigned id = Start();
  auto* response = new ky_loc_fw::VELARangingScanResponse(id);
  response->scanStatus = 2;
  const scan_test::Delivery delivery = Answer(response);
  EXPECT_EQ(delivery.counts, 5u);
  ASSERT_EQ(delivery.buffers.size(), 5u);
  EXPECT_EQ(delivery.buffers[0], AsBytes(uint32_t{2}));
  for (int i = 1; i < 5; ++i) {
    EXPECT_TRUE(delivery.null_pointer[i]) << i;
    EXPECT_THAT(delivery.buffers[i], IsEmpty()) << i;
  }
  EXPECT_THAT(logs_.lines(), ElementsAre("D RangingScan: ResponseReceived Request Id = " +
                                         std::to_string(id) + ", 0 measurements\n"));
}

TEST_F(RangingDeliveryTest, PlainAndRangingMeasurementsKeepTheirOrder) {
  const unsigned id = Start();
  ky_loc_fw::VELARangingScanResponse* response = vt::MakeRangingResponse(id, 1, 50);
  auto* plain = vt::MakeMeasurementOfType(0);
  vt::FillDistinct(plain, 60);
  auto* ranging = response->measurements.getData()[0];
  const auto& macs = static_cast<ky_loc_fw::VELARangingScanMeasurement*>(ranging)->macList;
  ASSERT_EQ(macs.getCount(), 2u);
  const WifiMacAddress first{macs.getData()[0].getLo24(), macs.getData()[0].getHi24()};
  const WifiMacAddress second{macs.getData()[1].getLo24(), macs.getData()[1].getHi24()};
  // The response and its measurements are gone once it has been delivered.
  const uint32_t plain_lo24 = plain->bssid.getLo24();
  const uint32_t ranging_lo24 = ranging->bssid.getLo24();
  // Plain first, then a full beacon (skipped), then the ranging measurement.
  ky_loc_fw::vector<ky_loc_fw::VELAScanMeasurement*> reordered;
  reordered.push_back(plain);
  reordered.push_back(vt::MakeMeasurementOfType(1));
  reordered.push_back(ranging);
  reordered.push_back(vt::MakeMeasurementOfType(3));
  response->measurements = reordered;

  const scan_test::Delivery delivery = Answer(response);
  ASSERT_EQ(delivery.buffers[1].size(), 320u);
  const auto r0 = FromBytes<WifiScanMeasurement>(delivery.buffers[1], 0);
  const auto r1 = FromBytes<WifiScanMeasurement>(delivery.buffers[1], 1);
  EXPECT_EQ(r0.bssidLo24, plain_lo24);
  EXPECT_EQ(r0.macCount, 0u);
  EXPECT_EQ(r1.bssidLo24, ranging_lo24);
  EXPECT_EQ(r1.firstMacIndex, 0u);
  EXPECT_EQ(r1.macCount, 2u);
  ASSERT_EQ(delivery.buffers[4].size(), 16u);
  const auto m0 = FromBytes<WifiMacAddress>(delivery.buffers[4], 0);
  const auto m1 = FromBytes<WifiMacAddress>(delivery.buffers[4], 1);
  EXPECT_EQ(std::make_pair(m0.lo24, m0.hi24), std::make_pair(first.lo24, first.hi24));
  EXPECT_EQ(std::make_pair(m1.lo24, m1.hi24), std::make_pair(second.lo24, second.hi24));
  EXPECT_THAT(logs_.lines(), ElementsAre("D RangingScan: ResponseReceived Request Id = " +
                                             std::to_string(id) + ", 4 measurements\n",
                                         "W RangingScan: Unexpected measurement type 1\n",
                                         "W RangingScan: Unexpected measurement type 3\n"));
}

TEST_F(RangingDeliveryTest, DiscoveryResponseTakesTheBadResponsePath) {
  const unsigned id = Start();
  const scan_test::Delivery delivery = Answer(vt::MakeDiscoveryResponse(id, 2, 1));
  EXPECT_EQ(delivery.buffers[0], AsBytes(uint32_t{5}));
  for (int i = 1; i < 5; ++i) EXPECT_TRUE(delivery.null_pointer[i]) << i;
  EXPECT_THAT(logs_.lines(), ElementsAre("W RangingScan: Bad response received\n"));
  EXPECT_EQ(callback_.releases(), 1);
}

}  // namespace
