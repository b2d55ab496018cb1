// The discovery scan object driven directly, with the host location service
// showing each request as sent and answering only what a test delivers.
#include "scan/discovery_scan.h"

#include <algorithm>
#include <cstring>
#include <functional>
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
using ky_loc_fw::VELADiscoveryScanRequest;
using ky_loc_fw::VELAResponse;
using scan_test::AsBytes;
using scan_test::Bytes;
using scan_test::FakeCallback;
using scan_test::FromBytes;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Call {
  DiscoveryScanParams params{};
  Bytes channels;
  Bytes ssids;
  Bytes bssids;
};

ObjectBuf Buf(Bytes& bytes) {
  return ObjectBuf{bytes.data(), bytes.size()};
}

class DiscoveryScanTest : public ::testing::Test {
 protected:
  void SetUp() override { scan_test::ManualAnswers(); }
  void TearDown() override {
    if (!IsNullObject(handle_)) ObjectRelease(handle_);
    vt::Reset();
  }

  int32_t Invoke(Call call, uint32_t op = 0, uint32_t counts = kDiscoveryScanCounts) {
    Bytes params = AsBytes(call.params);
    ObjectArg args[6];
    args[0].b = Buf(params);
    args[1].b = Buf(call.channels);
    args[2].b = Buf(call.ssids);
    args[3].b = Buf(call.bssids);
    args[4].o =
        IsNullObject(callback_object_override_) ? callback_.object() : callback_object_override_;
    args[5].o = kNullObject;
    logs_.Clear();
    const int32_t result = scan_object_.invoke(scan_object_.context, op, args, counts);
    handle_ = args[5].o;
    return result;
  }

  // The one request sent by the last Invoke.
  vt::SentRequest Sent() {
    const std::vector<vt::SentRequest> sent = vt::SentRequests();
    EXPECT_EQ(sent.size(), 1u);
    return sent.empty() ? vt::SentRequest{} : sent.back();
  }

  // Starts a scan, answers it with `response` and returns the delivery.
  scan_test::Delivery AnswerWith(VELAResponse* response) {
    vt::DeliverAndWait(response);
    const std::vector<scan_test::Delivery> deliveries = callback_.deliveries();
    EXPECT_EQ(deliveries.size(), 1u);
    return deliveries.empty() ? scan_test::Delivery{} : deliveries[0];
  }

  Object scan_object_ = CreateVelaDiscoveryScan();
  FakeCallback callback_;
  Object callback_object_override_ = kNullObject;
  Object handle_ = kNullObject;
  scan_test::LogLines logs_;
};

Bytes U32s(std::vector<uint32_t> values) {
  Bytes bytes;
  for (uint32_t v : values) {
    const Bytes one = AsBytes(v);
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  return bytes;
}

TEST_F(DiscoveryScanTest, MalformedInvocationsAreRefusedWithoutEffect) {
  struct Case {
    uint32_t op;
    uint32_t counts;
  } cases[] = {
      {OBJECT_OP_RETAIN, kDiscoveryScanCounts}, {OBJECT_OP_RELEASE, kDiscoveryScanCounts},
      {0x1FFFF, kDiscoveryScanCounts},          {1, kDiscoveryScanCounts},
      {0, OBJECT_COUNTS(3, 0, 1, 1)},           {0, OBJECT_COUNTS(4, 0, 0, 1)},
      {0, OBJECT_COUNTS(4, 1, 1, 1)},           {0, OBJECT_COUNTS(4, 0, 1, 0)},
  };
  const uint32_t before = VelaDispatcher::Get().next_request_id;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << std::hex << "op " << c.op << " counts " << c.counts);
    EXPECT_EQ(Invoke(Call{}, c.op, c.counts), 2);
    EXPECT_TRUE(IsNullObject(handle_));
    EXPECT_THAT(logs_.lines(), IsEmpty());
  }
  EXPECT_EQ(VelaDispatcher::Get().next_request_id, before);
  EXPECT_THAT(vt::SentRequests(), IsEmpty());
  EXPECT_EQ(callback_.retains(), 0);
}

// Each mode and form reaches its own factory with its arguments in order;
// every pass-through value is distinct so that a swap shows.
TEST_F(DiscoveryScanTest, ModeAndFormSelectTheFactoryAndItsArguments) {
  struct Case {
    const char* name;
    uint32_t mode;
    Bytes channels;
    uint32_t band;
    VELADiscoveryScanRequest::eRequestKind kind;
    std::vector<unsigned> expected_channels;
    VELADiscoveryScanRequest::eBand expected_band;
    const char* log;  // the factory's debug line, or null
  } cases[] = {
      {"fresh band 0",
       0,
       {},
       0,
       VELADiscoveryScanRequest::KIND_FRESH_SCAN,
       {},
       VELADiscoveryScanRequest::BAND_2_4_GHZ,
       "D DiscoveryScan: createFreshScanRequest (band 0) mode 0 scan_type 1 age_filter 111 "
       "timeout 333\n"},
      {"fresh mode 1 channels",
       1,
       U32s({36, 149}),
       1,
       VELADiscoveryScanRequest::KIND_FRESH_SCAN,
       {36, 149},
       VELADiscoveryScanRequest::BAND_ALL,
       "D DiscoveryScan: createFreshScanRequest (channel) mode 1\n"},
      {"fresh band 7 is all bands",
       1,
       {},
       7,
       VELADiscoveryScanRequest::KIND_FRESH_SCAN,
       {},
       VELADiscoveryScanRequest::BAND_ALL,
       "D DiscoveryScan: createFreshScanRequest (band 2) mode 1 scan_type 1 age_filter 111 "
       "timeout 333\n"},
      {"cache only band 1",
       2,
       {},
       1,
       VELADiscoveryScanRequest::KIND_CACHE_ONLY,
       {},
       VELADiscoveryScanRequest::BAND_5_GHZ,
       nullptr},
      {"cache only, 6-byte channel buffer gives one channel",
       2,
       Bytes{6, 0, 0, 0, 9, 9},
       0,
       VELADiscoveryScanRequest::KIND_CACHE_ONLY,
       {6},
       VELADiscoveryScanRequest::BAND_ALL,
       nullptr},
      {"fallback, channels make band 7 irrelevant",
       3,
       U32s({1, 6, 11}),
       7,
       VELADiscoveryScanRequest::KIND_CACHE_FALLBACK,
       {1, 6, 11},
       VELADiscoveryScanRequest::BAND_ALL,
       nullptr},
      {"fallback, 3-byte channel buffer is the band form",
       3,
       Bytes{6, 0, 0},
       0,
       VELADiscoveryScanRequest::KIND_CACHE_FALLBACK,
       {},
       VELADiscoveryScanRequest::BAND_2_4_GHZ,
       nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    scan_test::ManualAnswers();
    Call call;
    call.params.timeout = 333;
    call.params.scan_type = 5;  // nonzero: the second scan type
    call.params.mode = c.mode;
    call.params.age_filter = 111;
    call.params.fallback_param = 222;
    call.params.band = c.band;
    call.params.cache_flag = 1;
    call.params.scan_flag = 0;
    call.channels = c.channels;
    const uint32_t expected_id = VelaDispatcher::Get().next_request_id + 1;
    ASSERT_EQ(Invoke(call), 0);
    EXPECT_FALSE(IsNullObject(handle_));

    const vt::SentRequest sent = Sent();
    EXPECT_EQ(sent.requestId, expected_id);
    EXPECT_EQ(sent.kind, c.kind);
    EXPECT_EQ(sent.hasChannels, !c.expected_channels.empty());
    EXPECT_EQ(sent.channels, c.expected_channels);
    if (c.expected_channels.empty()) {
      EXPECT_EQ(sent.band, c.expected_band);
    }
    EXPECT_EQ(sent.ageFilter, 111u);
    EXPECT_EQ(sent.timeout, 333);
    const bool fresh = c.kind == VELADiscoveryScanRequest::KIND_FRESH_SCAN;
    const bool fallback = c.kind == VELADiscoveryScanRequest::KIND_CACHE_FALLBACK;
    if (fresh || fallback) {
      EXPECT_EQ(sent.scanType, VELADiscoveryScanRequest::SCAN_TYPE_PASSIVE);
    }
    if (fresh) {
      EXPECT_EQ(sent.requestMode, static_cast<int>(c.mode));
    }
    EXPECT_EQ(sent.fallbackParam, fallback ? 222u : 0u);
    EXPECT_EQ(sent.cacheFlag, !fresh);
    EXPECT_FALSE(sent.scanFlag);

    std::vector<std::string> expected_log;
    if (c.log != nullptr) expected_log.push_back(c.log);
    expected_log.push_back("D DiscoveryScan: StartScan returning 0\n");
    EXPECT_EQ(logs_.lines(), expected_log);
    ObjectRelease(handle_);
    handle_ = kNullObject;
  }
}

TEST_F(DiscoveryScanTest, ScanFlagAndFirstScanTypeReachTheFactory) {
  Call call;
  call.params.mode = 3;
  call.params.scan_type = 0;
  call.params.scan_flag = 1;
  ASSERT_EQ(Invoke(call), 0);
  const vt::SentRequest sent = Sent();
  EXPECT_EQ(sent.scanType, VELADiscoveryScanRequest::SCAN_TYPE_ACTIVE);
  EXPECT_TRUE(sent.scanFlag);
  EXPECT_FALSE(sent.cacheFlag);
}

TEST_F(DiscoveryScanTest, ShortParameterRecordIsNotRefusedAndReadsZeroPastItsEnd) {
  DiscoveryScanParams params{};
  params.timeout = 333;
  params.mode = 2;
  params.age_filter = 111;  // beyond the 16 bytes sent
  params.band = 1;          // likewise
  Bytes sent_bytes = AsBytes(params);
  sent_bytes.resize(16);
  Bytes empty;
  ObjectArg args[6];
  args[0].b = Buf(sent_bytes);
  args[1].b = args[2].b = args[3].b = Buf(empty);
  args[4].o = callback_.object();
  args[5].o = kNullObject;
  ASSERT_EQ(scan_object_.invoke(nullptr, 0, args, kDiscoveryScanCounts), 0);
  handle_ = args[5].o;
  const vt::SentRequest sent = Sent();
  EXPECT_EQ(sent.kind, VELADiscoveryScanRequest::KIND_CACHE_ONLY);
  EXPECT_EQ(sent.timeout, 333);
  EXPECT_EQ(sent.ageFilter, 0u);
  EXPECT_EQ(sent.band, VELADiscoveryScanRequest::BAND_2_4_GHZ);
}

TEST_F(DiscoveryScanTest, RefusedModeUsesUpARequestId) {
  Call call;
  call.params.mode = 4;
  const uint32_t before = VelaDispatcher::Get().next_request_id;
  EXPECT_EQ(Invoke(call), 1);
  EXPECT_TRUE(IsNullObject(handle_));
  EXPECT_THAT(logs_.lines(), ElementsAre("D DiscoveryScan: StartScan returning 1\n"));
  EXPECT_THAT(vt::SentRequests(), IsEmpty());

  call.params.mode = 0;
  ASSERT_EQ(Invoke(call), 0);
  EXPECT_EQ(Sent().requestId, before + 2);
}

TEST_F(DiscoveryScanTest, RequestRefusedByTheServiceIsNotStarted) {
  scan_test::ManualAnswers(/*send_result=*/-3);
  EXPECT_EQ(Invoke(Call{}), 1);
  EXPECT_TRUE(IsNullObject(handle_));
  EXPECT_EQ(callback_.retains(), 0);
  EXPECT_THAT(logs_.lines(), Contains("D DiscoveryScan: StartScan returning 1\n"));
}

TEST_F(DiscoveryScanTest, SsidRecordsAreCutTo32AndPartialRecordsIgnored) {
  WifiSsid long_name{};
  long_name.length = 40;
  for (int i = 0; i < 32; ++i) long_name.ssid[i] = static_cast<uint8_t>('a' + i % 26);
  WifiSsid hidden{};
  hidden.length = 0;
  hidden.ssid[0] = 'x';
  WifiSsid home{};
  home.length = 4;
  memcpy(home.ssid, "home-and-more", 13);

  Call call;
  for (const WifiSsid& record : {long_name, hidden, home}) {
    const Bytes bytes = AsBytes(record);
    call.ssids.insert(call.ssids.end(), bytes.begin(), bytes.end());
  }
  call.ssids.resize(call.ssids.size() + 35, 0x55);  // a partial fourth record
  ASSERT_EQ(Invoke(call), 0);
  const vt::SentRequest sent = Sent();
  ASSERT_EQ(sent.ssidFilter.size(), 3u);
  EXPECT_EQ(vt::SsidBytes(sent.ssidFilter[0]),
            std::string(reinterpret_cast<char*>(long_name.ssid), 32));
  EXPECT_TRUE(sent.ssidFilter[1].isSSIDValid());
  EXPECT_EQ(vt::SsidBytes(sent.ssidFilter[1]), "");
  EXPECT_EQ(vt::SsidBytes(sent.ssidFilter[2]), "home");
}

TEST_F(DiscoveryScanTest, BssidRecordsArePassedHighHalfFirst) {
  Call call;
  call.bssids = U32s({0x445566, 0x112233, 0xAABBCC, 0x000001});
  call.bssids.resize(call.bssids.size() + 7, 0xEE);
  ASSERT_EQ(Invoke(call), 0);
  const vt::SentRequest sent = Sent();
  ASSERT_EQ(sent.bssidFilter.size(), 2u);
  EXPECT_EQ(sent.bssidFilter[0], vt::MakeMac(0x112233, 0x445566));
  EXPECT_EQ(sent.bssidFilter[1], vt::MakeMac(0x000001, 0xAABBCC));
  EXPECT_THAT(sent.ssidFilter, IsEmpty());  // an empty list leaves the factory's array
}

// --- delivery ---

class DiscoveryDeliveryTest : public DiscoveryScanTest {
 protected:
  void SetUp() override {
    DiscoveryScanTest::SetUp();
    ASSERT_EQ(Invoke(Call{}), 0);
    id_ = Sent().requestId;
    logs_.Clear();
  }
  unsigned id_ = 0;
};

void ExpectEmptyPools(const scan_test::Delivery& delivery) {
  ASSERT_EQ(delivery.buffers.size(), 4u);
  for (int i = 1; i < 4; ++i) {
    EXPECT_TRUE(delivery.null_pointer[i]) << i;
    EXPECT_THAT(delivery.buffers[i], IsEmpty()) << i;
  }
}

TEST_F(DiscoveryDeliveryTest, NoMeasurementsDeliverTheHeaderAndEmptyBuffers) {
  auto* response = new ky_loc_fw::VELADiscoveryScanResponse(id_);
  response->scanStatus = 3;
  response->scanSource = 1;
  response->scanTimestamp = 0x0123456789ABCDEFull;
  const scan_test::Delivery delivery = AnswerWith(response);
  EXPECT_EQ(delivery.op, 0u);
  EXPECT_EQ(delivery.counts, 4u);
  ExpectEmptyPools(delivery);
  ASSERT_EQ(delivery.buffers[0].size(), 16u);
  const auto header = FromBytes<DiscoveryResponseHeader>(delivery.buffers[0]);
  EXPECT_EQ(header.response_value, 0x0123456789ABCDEFull);
  EXPECT_EQ(header.response_word, 1u);
  EXPECT_EQ(header.scanStatus, 3);
  EXPECT_THAT(logs_.lines(),
              ElementsAre("D DiscoveryScan: ResponseReceived Id = " + std::to_string(id_) + "\n",
                          "D DiscoveryScan: scanStatus 3, 0 measurements\n"));
  // The dispatcher, not the scan object, drops the callback's reference.
  EXPECT_EQ(callback_.retains(), 1);
  EXPECT_EQ(callback_.releases(), 1);
}

TEST_F(DiscoveryDeliveryTest, ThreeFullBeaconsDeliver480BytesInResponseOrder) {
  ky_loc_fw::VELADiscoveryScanResponse* response = vt::MakeDiscoveryResponse(id_, 3, 100);
  std::vector<std::pair<uint32_t, uint32_t>> bssids;
  for (uint32_t i = 0; i < 3; ++i) {
    const auto* m = response->measurements.getData()[i];
    bssids.emplace_back(m->bssid.getLo24(), m->bssid.getHi24());
  }
  const scan_test::Delivery delivery = AnswerWith(response);
  ASSERT_EQ(delivery.buffers[1].size(), 480u);
  uint32_t pool_end = 0;
  for (size_t i = 0; i < 3; ++i) {
    const auto record = FromBytes<WifiScanMeasurement>(delivery.buffers[1], i);
    EXPECT_EQ(std::make_pair(record.bssidLo24, record.bssidHi24), bssids[i]) << i;
    EXPECT_EQ(record.beaconIesOffset + record.beaconIesLength <= delivery.buffers[3].size(), true);
    EXPECT_GE(record.bytesOffset, pool_end) << "pools continue where the last record left off";
    pool_end = record.beaconIesOffset + record.beaconIesLength;
  }
  EXPECT_EQ(delivery.buffers[2].size() % 64, 0u);
  EXPECT_FALSE(delivery.null_pointer[3]);
  EXPECT_EQ(pool_end, delivery.buffers[3].size());
}

TEST_F(DiscoveryDeliveryTest, MeasurementsOfOtherTypesAreLoggedAndSkipped) {
  auto* response = new ky_loc_fw::VELADiscoveryScanResponse(id_);
  response->measurements.push_back(vt::MakeMeasurementOfType(2));
  response->measurements.push_back(vt::MakeMeasurementOfType(2));
  const scan_test::Delivery delivery = AnswerWith(response);
  ExpectEmptyPools(delivery);
  const std::vector<std::string> lines = logs_.lines();
  EXPECT_EQ(
      std::count(lines.begin(), lines.end(), "W DiscoveryScan: Unexpected measurement type 2\n"),
      2);
  EXPECT_THAT(lines, Contains("D DiscoveryScan: scanStatus 0, 2 measurements\n"));
}

TEST_F(DiscoveryScanTest, UnusableResponsesTakeTheBadResponsePath) {
  struct Case {
    const char* name;
    std::function<VELAResponse*(unsigned id)> make;
  } cases[] = {
      {"ranging response", [](unsigned id) { return vt::MakeRangingResponse(id, 2, 7); }},
      {"unknown response type", [](unsigned id) { return vt::MakeResponseOfType(id, 9); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeCallback callback;
    callback_object_override_ = callback.object();
    ASSERT_EQ(Invoke(Call{}), 0);
    const unsigned id = vt::SentRequests().back().requestId;
    logs_.Clear();
    vt::DeliverAndWait(c.make(id));
    const std::vector<scan_test::Delivery> deliveries = callback.deliveries();
    ASSERT_EQ(deliveries.size(), 1u);
    ExpectEmptyPools(deliveries[0]);
    const auto header = FromBytes<DiscoveryResponseHeader>(deliveries[0].buffers[0]);
    EXPECT_EQ(header.response_value, 0u);
    EXPECT_EQ(header.response_word, 0u);
    EXPECT_EQ(header.scanStatus, 5);
    EXPECT_THAT(logs_.lines(), ElementsAre("W DiscoveryScan: Bad response received\n"));
    ObjectRelease(handle_);
    handle_ = kNullObject;
  }
}

}  // namespace
