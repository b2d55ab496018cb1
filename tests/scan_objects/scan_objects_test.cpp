// The discovery and ranging scan objects driven directly, with the host location service
// showing each request as sent and answering only what a test delivers.
#include <atomic>
#include <cstring>
#include <mutex>
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
#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/discovery_scan.h"
#include "scan/ranging_scan.h"

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

WifiScanMeasurement Record(const Bytes& bytes, size_t i) {
  WifiScanMeasurement r{};
  if (bytes.size() >= (i + 1) * sizeof r) memcpy(&r, bytes.data() + i * sizeof r, sizeof r);
  return r;
}

RangingTarget Target(uint32_t seed) {
  // clang-format off
  return {0x000100 + seed, 0x020000 + seed, 2412 + seed, 2422 + seed, 5000 + seed, 3, 0x0A0B0C,
          0x0D0E0F, 2, 4, 1, 900 + seed, 1, static_cast<uint8_t>(seed), {}};
  // clang-format on
}

class ScanObjectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kf::log_set_local_level_for_tag("tesk", 2);
    kf::log_set_sink(LogSink, this, true);
    Restart();
  }
  void TearDown() override {
    Restart();
    kf::log_set_sink(nullptr, nullptr, false);
  }

  // The scan objects' lines as "<letter> <text>", debug included.
  static void LogSink(void* self, char letter, const char* tag, const char* text) {
    if (strcmp(tag, "tesk") != 0 || strstr(text, "Scan: ") == nullptr) return;
    auto* test = static_cast<ScanObjectTest*>(self);
    std::lock_guard<std::mutex> lock(test->mutex_);
    test->lines_.push_back(letter + std::string(" ") + text);
  }
  // A client's callback object: copies every delivery while it runs, as a real
  // client must, and counts what is done to its references.
  static int32_t Callback(void* self, uint32_t op, ObjectArg* args, uint32_t counts) {
    auto* test = static_cast<ScanObjectTest*>(self);
    test->retains_ += (op & OBJECT_OP_MASK) == OBJECT_OP_RETAIN;
    test->releases_ += (op & OBJECT_OP_MASK) == OBJECT_OP_RELEASE;
    if ((op & OBJECT_OP_MASK) != 0) return 0;
    Delivery d;
    for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) {
      const auto* p = static_cast<const uint8_t*>(args[i].b.ptr);
      d.push_back(p ? std::optional<Bytes>(Bytes(p, p + args[i].b.size)) : std::nullopt);
    }
    std::lock_guard<std::mutex> lock(test->mutex_);
    test->deliveries_.push_back(d);
    return 7;  // never looked at
  }
  template <typename T>
  std::vector<T> Take(std::vector<T>& list) {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(list);
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
    Take(lines_);
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

  Delivery Answer(kf::VELAResponse* response) {
    Take(lines_);
    vt::DeliverAndWait(response);
    std::vector<Delivery> deliveries = Take(deliveries_);
    EXPECT_EQ(deliveries.size(), 1u);
    return deliveries.empty() ? Delivery() : deliveries[0];
  }

  Object discovery_ = CreateVelaDiscoveryScan(), ranging_ = CreateVelaRangingScan();
  Object handle_ = kNullObject;
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::vector<Delivery> deliveries_;
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
    EXPECT_TRUE(Take(lines_).empty());
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
  // mode, channel buffer, band, factory, channels it gets, band it gets (BAND_ALL with
  // channels), its debug line after "D DiscoveryScan: createFreshScanRequest "
  // clang-format off
  const std::tuple<uint32_t, Bytes, uint32_t, R::eRequestKind, std::vector<unsigned>, R::eBand,
                   std::string> cases[] = {
      {0, {}, 0, R::KIND_FRESH_SCAN, none, R::BAND_2_4_GHZ,
       "(band 0) mode 0 scan_type 1 age_filter 111 timeout 333\n"},
      {1, channels, 1, R::KIND_FRESH_SCAN, three, R::BAND_ALL, "(channel) mode 1\n"},
      {2, {}, 1, R::KIND_CACHE_ONLY, none, R::BAND_5_GHZ, ""},
      {2, {6, 0, 0, 0, 9, 9}, 0, R::KIND_CACHE_ONLY, {6}, R::BAND_ALL, ""},  // 1.5 records
      {3, channels, 7, R::KIND_CACHE_FALLBACK, three, R::BAND_ALL, ""},
      {3, {6, 0, 0}, 7, R::KIND_CACHE_FALLBACK, none, R::BAND_ALL, ""},  // no whole record
  };
  // clang-format on
  for (const auto& [mode, bytes, band, kind, expected_channels, expected_band, log_line] : cases) {
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
    std::vector<std::string> log = Take(lines_);
    if (log_line.empty()) log.insert(log.begin(), "D DiscoveryScan: createFreshScanRequest ");
    EXPECT_THAT(log, ElementsAre("D DiscoveryScan: createFreshScanRequest " + log_line,
                                 "D DiscoveryScan: StartScan returning 0\n"));
  }
}

TEST_F(ScanObjectTest, RefusedScansReturnOne) {
  const uint32_t before = VelaDispatcher::Get().next_request_id;
  EXPECT_EQ(Discover({0, 0, /*mode=*/4, 0, 0, 0, 0, 0, {}}), 1);
  EXPECT_THAT(Take(lines_), ElementsAre("D DiscoveryScan: StartScan returning 1\n"));
  EXPECT_TRUE(vt::SentRequests().empty());
  ASSERT_EQ(Discover(), 0);
  EXPECT_EQ(Id(), before + 2);  // the refused mode used up an id

  Restart(/*send_result=*/-3);  // refused by the service: the callback is not kept
  EXPECT_EQ(Discover(), 1);
  EXPECT_EQ(Range(1, Bytes{}), 1);
  EXPECT_EQ(retains_, 1);
}

// SSIDs are cut to 32 bytes, a length of 0 is kept, a partial record is ignored;
// BSSID records are (low, high) and reach the factory high half first.
TEST_F(ScanObjectTest, SsidAndBssidFilters) {
  WifiSsid long_name{{}, 40, {}}, hidden{{}, 0, {'x'}}, home{{}, 4, {}};
  for (int i = 0; i < 32; ++i) long_name.ssid[i] = static_cast<uint8_t>('a' + i % 26);
  memcpy(home.ssid, "home-and-more", 13);
  Bytes ssids = AsBytes(long_name, hidden, home), bssids = AsBytes(0x445566, 0x112233, 0xAABBCC, 1);
  ssids.resize(ssids.size() + 35, 0x55);
  bssids.resize(bssids.size() + 7, 0xEE);
  ASSERT_EQ(Discover({}, {}, ssids, bssids), 0);
  const vt::SentRequest sent = Sent();
  std::vector<std::string> texts;
  for (const kf::VELASsid& ssid : sent.ssidFilter) texts.push_back(vt::SsidBytes(ssid));
  EXPECT_THAT(texts, ElementsAre("abcdefghijklmnopqrstuvwxyzabcdef", "", "home"));
  EXPECT_TRUE(sent.ssidFilter.at(1).isSSIDValid());
  EXPECT_THAT(sent.bssidFilter,
              ElementsAre(vt::MakeMac(0x112233, 0x445566), vt::MakeMac(0x000001, 0xAABBCC)));
}

TEST_F(ScanObjectTest, RangingRecordCountFollowsTheBufferSize) {
  // clang-format off
  const std::tuple<uint32_t, size_t, size_t> cases[] = {  // op, buffer size, targets sent
      {0, 51, 0}, {0, 100, 1}, {0, 104, 2}, {0x10000, 52, 1},
      {1, 63, 0}, {1, 130, 2}, {0x10001, 64, 1}};
  // clang-format on
  for (const auto& [op, size, nodes] : cases) {
    SCOPED_TRACE(testing::Message() << "op " << op << ", " << size << " bytes");
    Restart();
    Bytes targets = AsBytes(Target(1), Target(2), Target(3));
    targets.resize(size);
    ASSERT_EQ(Range(op, targets), 0);
    const vt::SentRequest sent = Sent();
    const bool periodic = (op & 0xFFFF) == 1;
    EXPECT_EQ(sent.timestamp, 42);
    EXPECT_EQ(periodic ? sent.periodicNodes.size() : sent.nodes.size(), nodes);
    EXPECT_THAT(Take(lines_),
                ElementsAre(periodic ? "D RangingScan: StartPeriodicRangingScan returning 0\n"
                                     : "D RangingScan: StartRangingScan ID " +
                                           std::to_string(Id()) + " ts 42 returning 0\n"));
  }
}

// Every target field reaches the factory; enum values out of range fall back.
TEST_F(ScanObjectTest, RangingTargetFieldsAndEnumFallbacks) {
  // clang-format off
  const std::tuple<int, uint32_t, uint32_t> cases[] = {  // nodeEnum1..4, value, value sent
      {1, 0, 0}, {1, 5, 5}, {1, 6, 0}, {2, 0, 0}, {2, 3, 3}, {2, 7, 1}, {2, 0xFFFFFFFF, 1},
      {3, 0, 0}, {3, 5, 0}, {4, 3, 3}, {4, 0xFFFFFFFF, 0}};
  // clang-format on
  for (uint32_t op : {0u, 1u}) {
    for (const auto& [which, value, expected] : cases) {
      SCOPED_TRACE(testing::Message() << "op " << op << " nodeEnum" << which << " " << value);
      Restart();
      PeriodicRangingTarget record{Target(5), 1000, 12, 1, {}};
      uint32_t* fields[] = {&record.node.nodeEnum1, &record.node.nodeEnum2, &record.node.nodeEnum3,
                            &record.node.nodeEnum4};
      *fields[which - 1] = value;
      ASSERT_EQ(Range(op, op == 0 ? AsBytes(record.node) : AsBytes(record)), 0);
      const vt::SentRequest sent = Sent();
      const kf::VELANodeInfo& n = op == 0 ? sent.nodes.at(0) : sent.periodicNodes.at(0);
      const uint32_t got[] = {n.nodeEnum1, n.nodeEnum2, n.nodeEnum3, n.nodeEnum4};
      EXPECT_EQ(got[which - 1], expected);
      EXPECT_EQ(std::make_tuple(n.mac, n.peerMac, n.nodeValue1, n.nodeValue2, n.nodeValue3,
                                n.ftmsPerBurst, n.nodeByte1, n.nodeByte2, n.nodeValue4),
                std::make_tuple(vt::MakeMac(0x020005, 0x000105), vt::MakeMac(0x0D0E0F, 0x0A0B0C),
                                2417u, 2427u, 5005u, 8u, 1, 5, 905u));
    }
  }
}

// Deliveries without records: the header, then null, empty pools.
TEST_F(ScanObjectTest, DeliveriesWithoutRecords) {
  using Make = kf::VELAResponse* (*)(unsigned id);
  const uint64_t ts = 0x0123456789ABCDEFull;
  const uint32_t base = VelaDispatcher::Get().next_request_id;  // each case draws the next id
  // clang-format off
  const std::tuple<bool, Make, Bytes, std::vector<std::string>> cases[] = {
      {false, [](unsigned id) -> kf::VELAResponse* {
         auto* r = new kf::VELADiscoveryScanResponse(id);
         r->scanStatus = 3;
         r->scanSource = 1;
         r->scanTimestamp = 0x0123456789ABCDEFull;
         for (int i = 0; i < 2; ++i) r->measurements.push_back(vt::MakeMeasurementOfType(2));
         return r; }, AsBytes(ts, 1, 3),
       {"D DiscoveryScan: ResponseReceived Id = " + std::to_string(base + 1) + "\n",
        "D DiscoveryScan: scanStatus 3, 2 measurements\n",
        "W DiscoveryScan: Unexpected measurement type 2\n",
        "W DiscoveryScan: Unexpected measurement type 2\n"}},
      {false, [](unsigned id) -> kf::VELAResponse* { return vt::MakeRangingResponse(id, 2, 7); },
       AsBytes(0ull, 0, 5), {"W DiscoveryScan: Bad response received\n"}},
      {true, [](unsigned id) -> kf::VELAResponse* { auto* r = new kf::VELARangingScanResponse(id);
                                                    r->scanStatus = 2; return r; }, AsBytes(2),
       {"D RangingScan: ResponseReceived Request Id = " + std::to_string(base + 3) +
        ", 0 measurements\n"}},
      {true, [](unsigned id) -> kf::VELAResponse* { return vt::MakeDiscoveryResponse(id, 2, 1); },
       AsBytes(5), {"W RangingScan: Bad response received\n"}},
  };
  // clang-format on
  int n = 0;
  for (const auto& [ranging, make, header, lines] : cases) {
    SCOPED_TRACE(++n);
    Restart();
    ASSERT_EQ(ranging ? Range(0, AsBytes(Target(1))) : Discover(), 0);
    Delivery expected(ranging ? 5 : 4);
    expected[0] = header;
    EXPECT_EQ(Answer(make(Id())), expected);
    EXPECT_EQ(Take(lines_), lines);
    // The dispatcher, not the scan object, drops the callback's one reference.
    EXPECT_EQ(retains_, n);
    EXPECT_EQ(releases_, n);
  }
}

// Plain, full beacon (skipped), ranging, type 3 (skipped).
TEST_F(ScanObjectTest, RangingDeliversPlainAndRangingMeasurementsInOrder) {
  ASSERT_EQ(Range(0, AsBytes(Target(1))), 0);
  auto* response = new kf::VELARangingScanResponse(Id());
  kf::VELAScanMeasurement* plain = vt::MakeMeasurementOfType(0);
  auto* ranging = new kf::VELARangingScanMeasurement();
  vt::FillDistinct(plain, 60);
  vt::FillDistinct(ranging, 50);
  for (kf::VELAScanMeasurement* m : std::initializer_list<kf::VELAScanMeasurement*>{
           plain, vt::MakeMeasurementOfType(1), ranging, vt::MakeMeasurementOfType(3)}) {
    response->measurements.push_back(m);
  }
  // Gone once delivered: what to compare with is kept first.
  const uint32_t plain_lo24 = plain->bssid.getLo24(), ranging_lo24 = ranging->bssid.getLo24();
  auto wire = [](const kf::VELAMacAddress& m) { return WifiMacAddress{m.getLo24(), m.getHi24()}; };
  const Bytes macs = AsBytes(wire(ranging->macList[0]), wire(ranging->macList[1]));
  const Delivery d = Answer(response);
  const Bytes records = d.at(1).value_or(Bytes());
  ASSERT_EQ(records.size(), 320u);
  EXPECT_EQ(std::make_tuple(Record(records, 0).bssidLo24, Record(records, 0).macCount,
                            Record(records, 1).bssidLo24, Record(records, 1).firstMacIndex,
                            Record(records, 1).macCount),
            std::make_tuple(plain_lo24, 0u, ranging_lo24, 0u, 2u));
  EXPECT_EQ(d.at(4), macs);
  EXPECT_THAT(Take(lines_), ElementsAre("D RangingScan: ResponseReceived Request Id = " +
                                            std::to_string(Id()) + ", 4 measurements\n",
                                        "W RangingScan: Unexpected measurement type 1\n",
                                        "W RangingScan: Unexpected measurement type 3\n"));
}

}  // namespace
