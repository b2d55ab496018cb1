// The discovery and ranging scan objects driven directly, with the host location service
// showing each request as sent and answering only what a test delivers.
#include <array>
#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tesk/interfaces.h>
#include <tesk/scan_records.h>
#include <tesk/scan_requests.h>

#include "dispatch/vela_dispatcher.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/discovery_scan.h"
#include "scan/ranging_scan.h"
#include "tests/support/log_lines.h"

namespace {

namespace kf = ky_loc_fw;
namespace vt = ky_loc_fw::vela_test;
using R = kf::VELADiscoveryScanRequest;
using ::testing::ElementsAre;
using Bytes = std::vector<uint8_t>;
using Delivery = std::vector<std::optional<Bytes>>;  // a delivery's buffers, null as nullopt

// The bytes of the records, one after another.
template <typename... T>
Bytes AsBytes(const T&... records) {
  Bytes all;
  (all.insert(all.end(), reinterpret_cast<const uint8_t*>(&records),
              reinterpret_cast<const uint8_t*>(&records) + sizeof records),
   ...);
  return all;
}

// A target with the given enums.
RangingTarget Target(std::array<uint32_t, 4> enums = {3, 2, 4, 1}) {
  return {0x000105, 0x020005, 2417,     2427, 5005, enums[0], 0x0A0B0C, 0x0D0E0F,
          enums[1], enums[2], enums[3], 905,  1,    5,        {}};
}

class ScanObjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kf::log_set_local_level_for_tag("tesk", 2);
    Restart();
  }
  void TearDown() override { Restart(); }

  // A client's callback object: copies every delivery while it runs, as a real
  // client must, and counts what is done to its references.
  static int32_t Callback(void* self, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* test = static_cast<ScanObjectTest*>(self);
    test->retains_ += (op & OBJECT_OP_MASK) == OBJECT_OP_RETAIN;
    test->releases_ += (op & OBJECT_OP_MASK) == OBJECT_OP_RELEASE;
    if ((op & OBJECT_OP_MASK) != 0) return 0;
    Delivery& d = test->deliveries_.emplace_back();
    for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) {
      const auto* p = static_cast<const uint8_t*>(args[i].b.ptr);
      d.push_back(p ? std::optional<Bytes>(Bytes(p, p + args[i].b.size)) : std::nullopt);
    }
    return 7;  // never looked at
  }
  // Releases the last handle; sendRequest returns send_result and sends no answer.
  void Restart(int send_result = 0) {
    if (!IsNullObject(handle_)) ObjectRelease(handle_);
    handle_ = kNullObject;
    vt::Reset();
    vt::RecordRequests();
    vt::SetSendHook([send_result](const vt::SentRequest&, vt::SendAction* action) {
      *action = {send_result, /*automaticAnswer=*/false, {}};
    });
  }

  // Buffers, then the callback, then the output handle.
  int32_t Invoke(Object object, uint32_t op, std::vector<Bytes> bufs, uint32_t counts) {
    ObjectArg args[6] = {};
    for (size_t i = 0; i < bufs.size(); ++i) args[i].b = ObjectBuf{bufs[i].data(), bufs[i].size()};
    args[bufs.size()].o = Object{Callback, this};
    log_.Take();
    const int32_t result = object.invoke(object.context, op, args, counts);
    handle_ = args[bufs.size() + 1].o;
    return result;
  }
  int32_t Discover(DiscoveryScanParams params = {}, Bytes channels = {}, Bytes ssids = {},
                   Bytes bssids = {}) {
    return Invoke(discovery_, 0, {AsBytes(params), channels, ssids, bssids}, kDiscoveryScanCounts);
  }
  int32_t Range(uint32_t op, Bytes targets, Bytes ts = AsBytes(int64_t{42})) {
    return Invoke(ranging_, op, {targets, ts}, kRangingScanCounts);
  }

  // The one request sent since the last Restart.
  vt::SentRequest Sent() {
    EXPECT_EQ(vt::SentRequests().size(), 1u);
    return vt::SentRequests().at(0);
  }
  unsigned Id() { return Sent().requestId; }

  Object discovery_ = CreateVelaDiscoveryScan(), ranging_ = CreateVelaRangingScan();
  Object handle_ = kNullObject;
  tesk_test::LogLines log_;
  std::vector<Delivery> deliveries_;  // written on the service's thread, read once it is done
  std::atomic<int> retains_{0}, releases_{0};
};

TEST_F(ScanObjectTest, MalformedInvocationsAreRefusedWithoutEffect) {
  constexpr uint32_t kD = kDiscoveryScanCounts, kR = kRangingScanCounts;
  // clang-format off
  const std::tuple<bool, uint32_t, uint32_t, size_t> cases[] = {  // ranging, op, counts, ts size
      {false, OBJECT_OP_RETAIN, kD, 8}, {false, OBJECT_OP_RELEASE, kD, 8}, {false, 0x1FFFF, kD, 8},
      {false, 0, OBJECT_COUNTS(3, 0, 1, 1), 8}, {false, 0, OBJECT_COUNTS(4, 0, 1, 0), 8},
      {true, OBJECT_OP_RETAIN, kR, 8}, {true, OBJECT_OP_RELEASE, kR, 8}, {true, 2, kR, 8},
      {true, 0, OBJECT_COUNTS(2, 0, 1, 0), 8}, {true, 1, OBJECT_COUNTS(3, 0, 1, 1), 8},
      {true, 0, kR, 4}, {true, 1, kR, 9}};  // the time value is 8 bytes
  // clang-format on
  const uint32_t before = VelaDispatcher::Get().next_request_id;
  for (const auto& [ranging, op, counts, ts_size] : cases) {
    SCOPED_TRACE(testing::Message() << ranging << " " << op << " " << counts << " " << ts_size);
    EXPECT_EQ(
        Invoke(ranging ? ranging_ : discovery_, op, {Bytes(52), Bytes(ts_size), {}, {}}, counts),
        2);
    EXPECT_TRUE(IsNullObject(handle_));
    EXPECT_TRUE(log_.Take().empty());
  }
  EXPECT_EQ(VelaDispatcher::Get().next_request_id, before);
  EXPECT_TRUE(vt::SentRequests().empty());
  EXPECT_EQ(retains_, 0);
}

// Each mode and form reaches its own factory with its arguments in order; pass-through values
// are distinct so that a swap shows. Cache fallback also sends scan type 0 and the scan flag.
TEST_F(ScanObjectTest, DiscoveryModeAndFormSelectTheFactoryAndItsArguments) {
  const Bytes channels = AsBytes(1u, 6u, 11u);
  const std::vector<unsigned> none, three = {1, 6, 11};
  // mode, channel buffer, band, factory, channels it gets, band it gets (BAND_ALL with channels)
  // clang-format off
  const std::tuple<uint32_t, Bytes, uint32_t, R::eRequestKind, std::vector<unsigned>,
                   R::eBand> cases[] = {
      {0, {}, 0, R::KIND_FRESH_SCAN, none, R::BAND_2_4_GHZ},
      {1, channels, 1, R::KIND_FRESH_SCAN, three, R::BAND_ALL},
      {2, {}, 1, R::KIND_CACHE_ONLY, none, R::BAND_5_GHZ},
      {2, {6, 0, 0, 0, 9, 9}, 0, R::KIND_CACHE_ONLY, {6}, R::BAND_ALL},  // 1.5 records
      {3, channels, 7, R::KIND_CACHE_FALLBACK, three, R::BAND_ALL},
      {3, {6, 0, 0}, 7, R::KIND_CACHE_FALLBACK, none, R::BAND_ALL},  // no whole record
  };
  // clang-format on
  for (const auto& [mode, bytes, band, kind, expected_channels, expected_band] : cases) {
    SCOPED_TRACE(testing::Message() << mode << " " << bytes.size() << " " << band);
    Restart();
    const bool fallback = kind == R::KIND_CACHE_FALLBACK, fresh = kind == R::KIND_FRESH_SCAN;
    ASSERT_EQ(Discover({333, fallback ? 0u : 5u, mode, 111, 222, band, 1, fallback, {}}, bytes), 0);
    const vt::SentRequest s = Sent();
    EXPECT_EQ(std::make_tuple(s.requestId, s.kind, s.hasChannels, s.channels, s.band, s.scanType,
                              s.ageFilter, s.fallbackParam, s.timeout, s.requestMode, s.cacheFlag,
                              s.scanFlag),
              std::make_tuple(VelaDispatcher::Get().next_request_id.load(), kind,
                              !expected_channels.empty(), expected_channels, expected_band,
                              fresh ? R::SCAN_TYPE_PASSIVE : R::SCAN_TYPE_ACTIVE, 111u,
                              fallback ? 222u : 0u, 333L,
                              fresh ? static_cast<R::eRequestMode>(mode) : R::REQUEST_MODE_NORMAL,
                              !fresh, fallback));
  }
}

TEST_F(ScanObjectTest, RefusedScansReturnOne) {
  const uint32_t before = VelaDispatcher::Get().next_request_id;
  EXPECT_EQ(Discover({0, 0, /*mode=*/4, 0, 0, 0, 0, 0, {}}), 1);
  EXPECT_THAT(log_.Take(), ElementsAre("D DiscoveryScan: StartScan returning 1\n"));
  EXPECT_TRUE(vt::SentRequests().empty());
  ASSERT_EQ(Discover(), 0);
  EXPECT_EQ(Id(), before + 2);  // the refused mode used up an id

  Restart(/*send_result=*/-3);  // refused by the service: the callback is not kept
  EXPECT_EQ(Discover(), 1);
  EXPECT_EQ(Range(1, Bytes{}), 1);
  EXPECT_EQ(retains_, 1);
}

// SSIDs are cut to 32 bytes, a length of 0 is kept, a partial record is
// ignored. (BSSID records show end to end: ScanEndToEnd scans for each.)
TEST_F(ScanObjectTest, SsidRecordsAreCutTo32Bytes) {
  WifiSsid long_name{{}, 40, {}}, hidden{{}, 0, {'x'}}, home{{}, 4, {}};
  for (int i = 0; i < 32; ++i) long_name.ssid[i] = static_cast<uint8_t>('a' + i % 26);
  memcpy(home.ssid, "home-and-more", 13);
  Bytes ssids = AsBytes(long_name, hidden, home);
  ssids.resize(ssids.size() + 35, 0x55);
  ASSERT_EQ(Discover({}, {}, ssids), 0);
  const vt::SentRequest sent = Sent();
  std::vector<std::string> texts;
  for (const kf::VELASsid& ssid : sent.ssidFilter) texts.push_back(vt::SsidBytes(ssid));
  EXPECT_THAT(texts, ElementsAre("abcdefghijklmnopqrstuvwxyzabcdef", "", "home"));
  EXPECT_TRUE(sent.ssidFilter.at(1).isSSIDValid());
}

// Only whole records count. Enum values out of range fall back (nodeEnum1 1-5, nodeEnum2 0-3 else
// 1, nodeEnum3 1-4, nodeEnum4 1-3).
TEST_F(ScanObjectTest, RangingRecordCountFollowsTheBufferSize) {
  // The enums of each record as sent, then as the factory gets them.
  // clang-format off
  const std::array<uint32_t, 4> enums[][2] = {
      {{5, 3, 4, 3}, {5, 3, 4, 3}}, {{1, 0, 1, 1}, {1, 0, 1, 1}},
      {{6, 4, 5, 4}, {0, 1, 0, 0}}, {{0, 0xFFFFFFFF, 0, 0xFFFFFFFF}, {0, 1, 0, 0}}};
  const std::tuple<uint32_t, size_t, size_t> cases[] = {  // op, buffer size, targets sent
      {0, 51, 0}, {0, 207, 3}, {0x10000, 208, 4}, {1, 63, 0}, {1, 255, 3}, {0x10001, 256, 4}};
  // clang-format on
  for (const auto& [op, size, count] : cases) {
    SCOPED_TRACE(testing::Message() << "op " << op << ", " << size << " bytes");
    Restart();
    const bool periodic = (op & 0xFFFF) == 1;
    Bytes targets;
    for (const auto& e : enums) {
      const PeriodicRangingTarget record{Target(e[0]), 1000, 12, 1, {}};
      const Bytes bytes = periodic ? AsBytes(record) : AsBytes(record.node);
      targets.insert(targets.end(), bytes.begin(), bytes.end());
    }
    targets.resize(size);
    ASSERT_EQ(Range(op, targets), 0);
    const vt::SentRequest sent = Sent();
    EXPECT_EQ(sent.timestamp, 42);
    ASSERT_EQ(periodic ? sent.periodicNodes.size() : sent.nodes.size(), count);
    for (size_t i = 0; i < count; ++i) {
      const kf::VELANodeInfo& n = periodic ? sent.periodicNodes[i] : sent.nodes[i];
      EXPECT_EQ((std::array<uint32_t, 4>{n.nodeEnum1, n.nodeEnum2, n.nodeEnum3, n.nodeEnum4}),
                enums[i][1]);
      EXPECT_EQ(n.mac, vt::MakeMac(0x020005, 0x000105));
    }
  }
}

// Deliveries without records: the header, then null, empty pools. Measurements
// of a type the scan does not deliver are skipped with a warning; an answer of
// the other kind is delivered with status 5.
TEST_F(ScanObjectTest, DeliveriesWithoutRecords) {
  const uint64_t ts = 0x0123456789ABCDEFull;
  // ranging scan, ranging answer, its measurements' types, header, log lines (# the id)
  // clang-format off
  const std::tuple<bool, bool, std::vector<int>, Bytes, std::vector<std::string>> cases[] = {
      {false, false, {2, 2}, AsBytes(ts, 1, 3),
       {"D DiscoveryScan: ResponseReceived Id = #\n", "D DiscoveryScan: scanStatus 3, 2 measurements\n",
        "W DiscoveryScan: Unexpected measurement type 2\n",
        "W DiscoveryScan: Unexpected measurement type 2\n"}},
      {false, true, {2}, AsBytes(0ull, 0, 5), {"W DiscoveryScan: Bad response received\n"}},
      {true, true, {1, 3}, AsBytes(3),
       {"D RangingScan: ResponseReceived Request Id = #, 2 measurements\n",
        "W RangingScan: Unexpected measurement type 1\n",
        "W RangingScan: Unexpected measurement type 3\n"}},
      {true, false, {1}, AsBytes(5), {"W RangingScan: Bad response received\n"}},
  };
  // clang-format on
  int n = 0;
  for (const auto& [ranging, ranging_answer, types, header, lines] : cases) {
    SCOPED_TRACE(++n);
    Restart();
    ASSERT_EQ(ranging ? Range(0, AsBytes(Target())) : Discover(), 0);
    log_.Take();
    deliveries_.clear();
    const std::vector<int>& measurement_types = types;  // structured bindings cannot be captured
    const auto fill = [&measurement_types](auto* r) -> kf::VELAResponse* {
      r->scanStatus = 3;
      for (int type : measurement_types) r->measurements.push_back(vt::MakeMeasurementOfType(type));
      return r;
    };
    if (ranging_answer) {
      vt::DeliverAndWait(fill(new kf::VELARangingScanResponse(Id())));
    } else {
      auto* answer = new kf::VELADiscoveryScanResponse(Id());
      answer->scanSource = 1;
      answer->scanTimestamp = ts;
      vt::DeliverAndWait(fill(answer));
    }
    Delivery expected(ranging ? 5 : 4);
    expected[0] = header;
    EXPECT_THAT(deliveries_, ElementsAre(expected));
    std::vector<std::string> log = {"D Dispatcher: responseReceived for ID = #\n"};
    log.insert(log.end(), lines.begin(), lines.end());
    for (std::string& line : log) {
      if (line.find('#') != std::string::npos)
        line.replace(line.find('#'), 1, std::to_string(Id()));
    }
    EXPECT_EQ(log_.Take(), log);
    // The dispatcher, not the scan object, drops the callback's one reference.
    EXPECT_EQ(retains_, n);
    EXPECT_EQ(releases_, n);
  }
}

}  // namespace
