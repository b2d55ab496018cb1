// The simulated location service behind VELAClient: answers, faults, the
// built-in neighbourhood, the delivery thread and the test control.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace {

using Request = VELADiscoveryScanRequest;

uint64_t Mac48(const VELAMacAddress& mac) {
  return static_cast<uint64_t>(mac.getHi24()) << 24 | mac.getLo24();
}

// What the tests look at of an answer after the client has deleted it.
struct Seen {
  uint64_t bssid;
  std::string ssid;
  uint8_t channel;
  std::string ies;  // full beacons only, as the element bytes
};
struct SeenResponse {
  bool isNull = true;
  int type = 0, status = 0;
  unsigned int id = 0, source = 0;
  std::vector<int> types;  // of the measurements, in order
  std::set<uint64_t> bssids;
  std::vector<Seen> measurements;
};

void Summarise(const VELAScanMeasurement& m, SeenResponse* out) {
  out->types.push_back(m.getMeasurementType());
  out->bssids.insert(Mac48(m.bssid));
  out->measurements.push_back({Mac48(m.bssid), vela_test::SsidBytes(m.ssid), m.value8_8, {}});
  if (m.getMeasurementType() != VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON) return;
  const auto& elements = static_cast<const VELAFullBeaconScanMeasurement&>(m).informationElements;
  std::string& ies = out->measurements.back().ies;
  for (uint32_t i = 0; i < elements.getCount(); ++i) {
    ies += {static_cast<char>(elements[i]->id), static_cast<char>(elements[i]->len)};
    ies.append(reinterpret_cast<const char*>(elements[i]->data), elements[i]->len);
  }
}

struct Recorder : VELAClientListener {
  void responseReceived(VELAResponse* response) override {
    SeenResponse s;
    const ky_loc_fw::vector<VELAScanMeasurement*>* list = nullptr;
    if (response != nullptr) {
      s.isNull = false;
      s.type = response->getResponseType();
      s.id = response->getRequestId();
    }
    if (auto* d = dynamic_cast<VELADiscoveryScanResponse*>(response)) {
      s.status = d->scanStatus;
      s.source = d->scanSource;
      list = &d->measurements;
    } else if (auto* r = dynamic_cast<VELARangingScanResponse*>(response)) {
      s.status = r->scanStatus;
      list = &r->measurements;
    }
    for (uint32_t i = 0; list != nullptr && i < list->getCount(); ++i) {
      if ((*list)[i] != nullptr) Summarise(*(*list)[i], &s);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    seen_.push_back(std::move(s));
    arrived_.notify_all();
  }
  // Blocks until count responses have arrived; returns all seen so far.
  std::vector<SeenResponse> WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    arrived_.wait(lock, [&] { return seen_.size() >= count; });
    return seen_;
  }
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<SeenResponse> seen_;
};

// A client on a scenario (null: the built-in neighbourhood), and what it delivered.
struct Session : Recorder {
  explicit Session(const std::string* scenario) {
    vela_test::Reset();
    vela_test::RecordRequests();
    vela_test::SetScenarioText(scenario == nullptr ? nullptr : scenario->c_str());
    client.reset(VELAClient::createInstance(this, true, VELAClient::LOG_LEVEL_INFO));
  }
  // Sends and deletes the request, as the daemon does.
  int Send(VELARequest* request) {
    std::unique_ptr<VELARequest> owned(request);
    return client->sendRequest(owned.get());
  }
  std::unique_ptr<VELAClient> client;
};

constexpr uint64_t kAlpha = 0x020000000001, kBeta = 0x020000000002, kGamma = 0x020000000003;
constexpr uint64_t kDelta = 0x020000000004, kHidden = 0x020000000005;
const std::string kStreet =
    "latency 0\n"
    "ap bssid=02:00:00:00:00:01 ssid=alpha channel=1\n"
    "ap bssid=02:00:00:00:00:02 ssid=beta channel=6\n"
    "ap bssid=02:00:00:00:00:03 ssid=gamma channel=36\n"
    "ap bssid=02:00:00:00:00:04 ssid=delta channel=149 cached\n"
    "ap bssid=02:00:00:00:00:05 channel=11 hidden\n";

Request* Fresh(unsigned int id, Request::eBand band) {
  return Request::createFreshScanRequest(id, band, Request::SCAN_TYPE_ACTIVE, 0, 0,
                                         Request::REQUEST_MODE_NORMAL, false);
}

// One client answers the rows in order: cache rows see what earlier scans found.
TEST(VelaClient, AnswersHonourModesBandsChannelsAndFilters) {
  const auto kCacheOnly = Request::KIND_CACHE_ONLY, kFallback = Request::KIND_CACHE_FALLBACK;
  const auto kFresh = Request::KIND_FRESH_SCAN;
  const auto all = Request::BAND_ALL, low = Request::BAND_2_4_GHZ, high = Request::BAND_5_GHZ;
  const uint32_t kFromCache = VELADiscoveryScanResponse::SCAN_SOURCE_CACHE;
  const uint32_t kFromScan = VELADiscoveryScanResponse::SCAN_SOURCE_FRESH;
  const struct Case {
    Request::eRequestKind kind;
    Request::eBand band;
    bool flag;            // hidden access points too
    unsigned int wanted;  // fewer cached results than this: a fresh scan answers
    std::vector<unsigned int> channels;
    std::vector<std::string> ssids;
    std::vector<uint64_t> bssids;
    uint32_t source;
    std::set<uint64_t> expected;
  } cases[] = {
      {kCacheOnly, all, true, 0, {}, {}, {}, kFromCache, {kDelta}},  // only "cached" so far
      {kFallback, all, false, 1, {}, {}, {}, kFromCache, {kDelta}},
      {kFallback, high, false, 2, {}, {}, {}, kFromScan, {kGamma, kDelta}},
      {kFresh, low, false, 0, {}, {}, {}, kFromScan, {kAlpha, kBeta}},
      {kCacheOnly, all, false, 0, {}, {}, {}, kFromCache, {kAlpha, kBeta, kGamma, kDelta}},
      {kCacheOnly, low, true, 0, {}, {}, {}, kFromCache, {kAlpha, kBeta, kHidden}},
      {kFresh, low, true, 0, {}, {}, {}, kFromScan, {kAlpha, kBeta, kHidden}},
      {kFresh, all, false, 0, {6, 5745}, {}, {}, kFromScan, {kBeta, kDelta}},
      {kFresh, all, false, 0, {}, {"gamma", "alpha", "alph"}, {}, kFromScan, {kAlpha, kGamma}},
      {kFresh, all, false, 0, {}, {"beta", "gamma"}, {kBeta, kDelta}, kFromScan, {kBeta}},
  };
  Session session(&kStreet);
  unsigned int id = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(++id);
    ky_loc_fw::vector<VELAChannelInfo> channels;
    for (unsigned int channel : c.channels) channels.push_back(VELAChannelInfo(channel));
    const auto active = Request::SCAN_TYPE_ACTIVE;
    Request* r =
        c.kind == kCacheOnly ? Request::createCacheOnlyRequest(id, c.band, 0, 0, c.flag)
        : c.kind == kFallback
            ? Request::createCacheFallbackRequest(id, c.band, active, 0, c.wanted, 0, c.flag, false)
        : c.channels.empty() ? Request::createFreshScanRequest(id, c.band, active, 0, 0,
                                                               Request::REQUEST_MODE_NORMAL, c.flag)
                             : Request::createFreshScanRequest(id, channels, active, 0, 0,
                                                               Request::REQUEST_MODE_NORMAL, false);
    for (const std::string& ssid : c.ssids) r->ssidFilter.push_back(vela_test::MakeSsid(ssid));
    for (uint64_t bssid : c.bssids) {
      r->bssidFilter.push_back(
          vela_test::MakeMac(static_cast<uint32_t>(bssid >> 24), bssid & 0xFFFFFF));
    }
    EXPECT_EQ(session.Send(r), 0);
    const SeenResponse seen = session.WaitFor(id)[id - 1];
    EXPECT_EQ(seen.type, VELAResponse::RESPONSE_TYPE_DISCOVERY_SCAN);
    EXPECT_EQ(seen.id, id);
    EXPECT_EQ(seen.status, VELAResponse::SCAN_STATUS_SUCCESS);
    EXPECT_EQ(seen.source, c.source);
    EXPECT_EQ(seen.bssids, c.expected);
  }
}

std::string Hex(const std::string& bytes) {
  std::string out;
  for (unsigned char b : bytes) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
  return out;
}

// The built-in neighbourhood answers with the first captured frame of each
// access point unchanged; what follows its elements is the vendor's own.
TEST(VelaClient, BuiltInNeighbourhoodCarriesTheCapturedFrames) {
  std::ifstream tsv(VELA_DATA_DIR "/beacon_ies.tsv");
  ASSERT_TRUE(tsv.good());
  std::map<uint64_t, std::vector<std::string>> first_frame;  // ssid, channel, elements
  std::string line, name, subtype, bssid, channel, ssid, ies;
  std::getline(tsv, line);  // header
  while (std::getline(tsv, line)) {
    std::istringstream fields(line);
    for (std::string* field : {&name, &subtype, &bssid, &channel, &ssid, &ies}) {
      std::getline(fields, *field, '\t');
    }
    VELAMacAddress mac;
    ASSERT_TRUE(vela_test::ParseMac(bssid, &mac)) << bssid;
    first_frame.emplace(Mac48(mac), std::vector<std::string>{ssid, channel, ies});
  }
  unsetenv("VELA_SCENARIO");
  Session session(nullptr);
  EXPECT_EQ(session.Send(Fresh(1, Request::BAND_ALL)), 0);
  const SeenResponse r = session.WaitFor(1)[0];
  EXPECT_EQ(r.types, std::vector<int>(first_frame.size(), 1));  // full beacons
  const std::string oui(reinterpret_cast<const char*>(vela_test::kVendorOui), 3);
  for (const Seen& m : r.measurements) {
    ASSERT_EQ(first_frame.count(m.bssid), 1u) << m.bssid;
    const std::vector<std::string>& frame = first_frame[m.bssid];
    EXPECT_EQ(Hex(m.ssid), frame[0]);
    EXPECT_EQ(m.channel, std::stoi(frame[1]));
    EXPECT_EQ(Hex(m.ies).substr(0, frame[2].size()), frame[2]);
    for (size_t at = frame[2].size() / 2; at + 5 <= m.ies.size();
         at += 2 + static_cast<uint8_t>(m.ies[at + 1])) {
      EXPECT_EQ(Hex(m.ies.substr(at, 1) + m.ies.substr(at + 2, 3)), "dd" + Hex(oui));
    }
  }
}

TEST(VelaClient, ScenarioFaultsShapeTheAnswer) {
  const struct Case {
    const char* fault;
    int send_result;  // 99: no client
    size_t responses;
    int type;  // 0: a null response
    int32_t status;
    std::vector<int> types;
  } cases[] = {
      {"fault create", 99, 0, 0, 0, {}},
      {"fault refuse 1", -1, 0, 0, 0, {}},
      {"fault drop 1", 0, 0, 0, 0, {}},
      {"fault null 1", 0, 1, 0, 0, {}},
      {"fault wrong-type 1", 0, 1, 2, 0, {}},
      {"fault odd-type 1", 0, 1, 3, 0, {}},
      {"fault odd-measurement 1", 0, 1, 1, 0, {3, 1, 1, 1, 1, 0, 2}},
      {"fault duplicate 1", 0, 2, 1, 0, {1, 1, 1, 1}},
      {"fault status 1 3", 0, 1, 1, 3, {1, 1, 1, 1}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.fault);
    const std::string scenario = kStreet + c.fault + "\n";
    Session session(&scenario);
    if (c.send_result == 99) {  // and the log says why
      std::string log;
      log_set_sink(
          [](void* out, char letter, const char* tag, const char* text) {
            *static_cast<std::string*>(out) += letter + std::string(tag) + " " + text;
          },
          &log, true);
      EXPECT_EQ(VELAClient::createInstance(&session, true, VELAClient::LOG_LEVEL_INFO), nullptr);
      log_set_sink(nullptr, nullptr, false);
      EXPECT_EQ(log,
                "Evela the location service refused the connection (scenario set by the test)\n");
      continue;
    }
    ASSERT_NE(session.client, nullptr);
    EXPECT_EQ(session.Send(Fresh(1, Request::BAND_ALL)), c.send_result);
    vela_test::WaitIdle();
    const std::vector<SeenResponse> seen = session.WaitFor(0);
    ASSERT_EQ(seen.size(), c.responses);
    for (const SeenResponse& r : seen) {
      EXPECT_EQ(r.isNull, c.type == 0);
      EXPECT_EQ(r.id, c.type == 0 ? 0u : 1u);
      EXPECT_EQ(r.type, c.type);
      EXPECT_EQ(r.status, c.status);
      EXPECT_EQ(r.types, c.types);
    }
  }
}

TEST(VelaClient, ConcurrentSendersEachGetTheirAnswerAndAreRecordedOnlyWhenAsked) {
  Session session(&kStreet);
  std::vector<std::thread> threads;
  for (unsigned int first = 1; first < 100; first += 25) {
    threads.emplace_back([&session, first] {
      for (unsigned int id = first; id < first + 25; ++id) {
        EXPECT_EQ(session.Send(Fresh(id, Request::BAND_2_4_GHZ)), 0);
      }
    });
  }
  for (std::thread& t : threads) t.join();
  std::set<unsigned int> ids;
  for (const SeenResponse& r : session.WaitFor(100)) {
    ids.insert(r.id);
    EXPECT_EQ(r.bssids, (std::set<uint64_t>{kAlpha, kBeta}));
  }
  EXPECT_EQ(ids.size(), 100u);
  EXPECT_EQ(vela_test::SentRequests().size(), 100u);
  // Recording ends with Reset, as in a daemon no test steers.
  vela_test::Reset();
  EXPECT_EQ(session.Send(Fresh(101, Request::BAND_2_4_GHZ)), 0);
  EXPECT_TRUE(vela_test::SentRequests().empty());
}

}  // namespace
}  // namespace ky_loc_fw
