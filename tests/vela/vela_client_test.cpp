// The simulated location service behind VELAClient: answers, faults, the
// delivery thread and the recording of requests. One thread sends, as in the
// daemon, which sends under its dispatcher's lock.
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace {

using Request = VELADiscoveryScanRequest;

// What the tests look at of an answer after the client has deleted it.
struct Seen {
  bool isNull = true;
  int type = 0, status = 0;
  unsigned int id = 0, source = 0;
  std::vector<int> types;     // of the measurements, in order
  std::set<uint32_t> bssids;  // their low 24 bits
};

// A client on a scenario, and what it delivered.
struct Session : VELAClientListener {
  explicit Session(const std::string& scenario) {
    vela_test::Reset();
    vela_test::RecordRequests();
    vela_test::SetScenarioText(scenario.c_str());
    client.reset(VELAClient::createInstance(this, true, VELAClient::LOG_LEVEL_INFO));
  }
  void responseReceived(VELAResponse* response) override {
    Seen s;
    if (response != nullptr) {
      s.isNull = false;
      s.type = response->getResponseType();
      s.id = response->getRequestId();
    }
    if (auto* d = dynamic_cast<VELADiscoveryScanResponse*>(response)) {
      s.status = d->scanStatus;
      s.source = d->scanSource;
      for (uint32_t i = 0; i < d->measurements.getCount(); ++i) {
        const VELAScanMeasurement& m = *d->measurements[i];
        s.types.push_back(m.getMeasurementType());
        s.bssids.insert(m.bssid.getLo24());
      }
    }
    seen.push_back(std::move(s));
  }
  // Sends and deletes the request, as the daemon does, and waits until its
  // answers have been delivered; seen may be read then.
  int Send(VELARequest* request) {
    std::unique_ptr<VELARequest> owned(request);
    const int result = client->sendRequest(owned.get());
    vela_test::WaitIdle();
    return result;
  }
  std::vector<Seen> seen;
  std::unique_ptr<VELAClient> client;  // last: it stops its deliveries first
};

enum : uint32_t { kAlpha = 1, kBeta, kGamma, kDelta, kHidden };  // the low bytes of their BSSIDs
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
    std::vector<uint32_t> bssids;
    uint32_t source;
    std::set<uint32_t> expected;
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
  Session session(kStreet);
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
    for (const std::string& text : c.ssids) {
      VELASsid ssid;
      ssid.setSSID(reinterpret_cast<const unsigned char*>(text.data()),
                   static_cast<int>(text.size()));
      r->ssidFilter.push_back(ssid);
    }
    for (uint32_t bssid : c.bssids) r->bssidFilter.push_back(vela_test::MakeMac(0x020000, bssid));
    EXPECT_EQ(session.Send(r), 0);
    ASSERT_EQ(session.seen.size(), id);
    const Seen& seen = session.seen.back();
    EXPECT_EQ(std::make_tuple(seen.type, seen.id, seen.status, seen.source),
              std::make_tuple(VELAResponse::RESPONSE_TYPE_DISCOVERY_SCAN, id,
                              int{VELAResponse::SCAN_STATUS_SUCCESS}, c.source));
    EXPECT_EQ(seen.bssids, c.expected);
  }
  // Requests are recorded until Reset, as in a daemon no test steers.
  EXPECT_EQ(vela_test::SentRequests().size(), id);
  vela_test::Reset();
  EXPECT_EQ(session.Send(Fresh(++id, Request::BAND_ALL)), 0);
  EXPECT_TRUE(vela_test::SentRequests().empty());
}

TEST(VelaClient, ScenarioFaultsShapeTheAnswer) {
  const struct Case {
    const char* fault;
    int send_result;
    size_t responses;
    int type;  // 0: a null response
    int32_t status;
    std::vector<int> types;
  } cases[] = {
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
    Session session(kStreet + c.fault + "\n");
    ASSERT_NE(session.client, nullptr);
    EXPECT_EQ(session.Send(Fresh(1, Request::BAND_ALL)), c.send_result);
    ASSERT_EQ(session.seen.size(), c.responses);
    for (const Seen& r : session.seen) {
      EXPECT_EQ(std::make_tuple(r.isNull, r.id, r.type, r.status),
                std::make_tuple(c.type == 0, c.type == 0 ? 0u : 1u, c.type, c.status));
      EXPECT_EQ(r.types, c.types);
    }
  }
}

}  // namespace
}  // namespace ky_loc_fw
