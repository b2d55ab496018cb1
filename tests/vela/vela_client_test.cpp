// The simulated location service behind VELAClient: answers, faults, the
// delivery thread and the recording of requests. One thread sends, as in the
// daemon, which sends under its dispatcher's lock.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace {

using Request = VELADiscoveryScanRequest;

// A client on a scenario, and a line for each answer it delivered: "null",
// or the answer's type and id, then for discovery its status, its source and
// the type of each measurement, with the BSSID's last byte for full beacons.
struct Session : VELAClientListener {
  explicit Session(const std::string& scenario) {
    vela_test::SetScenarioText(scenario.c_str());
    client.reset(VELAClient::createInstance(this, true, VELAClient::LOG_LEVEL_INFO));
  }
  void responseReceived(VELAResponse* r) override {
    std::ostringstream line;
    if (r == nullptr) line << "null";
    if (r != nullptr) line << "type " << r->getResponseType() << " id " << r->getRequestId();
    if (auto* d = dynamic_cast<VELADiscoveryScanResponse*>(r)) {
      line << " status " << d->scanStatus << " source " << d->scanSource << ":";
      for (uint32_t i = 0; i < d->measurements.getCount(); ++i) {
        const VELAScanMeasurement& m = *d->measurements[i];
        line << " " << m.getMeasurementType();
        if (m.getMeasurementType() == 1) line << "/" << m.bssid.getLo24();
      }
    }
    seen.push_back(line.str());
  }
  // Sends and deletes the request, as the daemon does, and waits until its
  // answers have been delivered; seen may be read then.
  int Send(VELARequest* request) {
    std::unique_ptr<VELARequest> owned(request);
    const int result = client->sendRequest(owned.get());
    vela_test::WaitIdle();
    return result;
  }
  std::vector<std::string> seen;
  std::unique_ptr<VELAClient> client;  // last: it stops its deliveries first
};

const std::string kStreet =
    "latency 0\n"
    "ap bssid=02:00:00:00:00:01 ssid=alpha channel=1\n"
    "ap bssid=02:00:00:00:00:02 ssid=beta channel=6\n"
    "ap bssid=02:00:00:00:00:03 ssid=gamma channel=36\n"
    "ap bssid=02:00:00:00:00:04 ssid=delta channel=149 cached\n"
    "ap bssid=02:00:00:00:00:05 channel=11 hidden\n";

// One client answers the rows in order: cache rows see what earlier scans found.
TEST(VelaClient, AnswersHonourModesBandsChannelsAndFilters) {
  const auto kCacheOnly = Request::KIND_CACHE_ONLY, kFallback = Request::KIND_CACHE_FALLBACK;
  const auto kFresh = Request::KIND_FRESH_SCAN;
  const auto all = Request::BAND_ALL, low = Request::BAND_2_4_GHZ, high = Request::BAND_5_GHZ;
  const struct Case {
    Request::eRequestKind kind;
    Request::eBand band;
    bool flag;            // hidden access points too
    unsigned int wanted;  // fewer cached results than this: a fresh scan answers
    std::vector<unsigned int> channels;
    std::vector<std::string> ssids;
    std::vector<uint32_t> bssids;  // last bytes
    const char* answer;            // source (0 fresh, 1 cache): full beacons' BSSIDs
  } cases[] = {
      {kCacheOnly, all, true, 0, {}, {}, {}, "1: 1/4"},  // only "cached" so far
      {kFallback, all, false, 1, {}, {}, {}, "1: 1/4"},
      {kFallback, high, false, 2, {}, {}, {}, "0: 1/3 1/4"},
      {kFresh, low, false, 0, {}, {}, {}, "0: 1/1 1/2"},
      {kCacheOnly, all, false, 0, {}, {}, {}, "1: 1/1 1/2 1/3 1/4"},
      {kCacheOnly, low, true, 0, {}, {}, {}, "1: 1/1 1/2 1/5"},
      {kFresh, all, false, 0, {6, 5745}, {}, {}, "0: 1/2 1/4"},
      {kFresh, all, false, 0, {}, {"gamma", "alpha", "alph"}, {}, "0: 1/1 1/3"},
      {kFresh, all, false, 0, {}, {"beta", "gamma"}, {2, 4}, "0: 1/2"},
  };
  Session session(kStreet);
  unsigned int id = 0;
  std::vector<std::string> answers;
  for (const Case& c : cases) {
    ++id;
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
    for (const std::string& s : c.ssids) {
      VELASsid ssid;
      ssid.setSSID(reinterpret_cast<const unsigned char*>(s.data()), static_cast<int>(s.size()));
      r->ssidFilter.push_back(ssid);
    }
    for (uint32_t bssid : c.bssids) r->bssidFilter.push_back(vela_test::MakeMac(0x020000, bssid));
    EXPECT_EQ(session.Send(r), 0);
    answers.push_back("type 1 id " + std::to_string(id) + " status 0 source " + c.answer);
  }
  EXPECT_EQ(session.seen, answers);
}

TEST(VelaClient, ScenarioFaultsShapeTheAnswer) {
  const std::string answer = "type 1 id 1 status 0 source 1: 1/4";  // what the cache holds
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"fault drop 1", {}},
      {"fault null 1", {"null"}},
      {"fault odd-type 1", {"type 3 id 1"}},
      {"fault odd-measurement 1", {"type 1 id 1 status 0 source 1: 3 1/4 0 2"}},
      {"fault duplicate 1", {answer, answer}},
      {"fault status 1 3", {"type 1 id 1 status 3 source 1: 1/4"}},
  };
  for (const auto& [fault, answers] : cases) {
    SCOPED_TRACE(fault);
    Session session(kStreet + fault + "\n");
    ASSERT_NE(session.client, nullptr);
    EXPECT_EQ(session.Send(Request::createCacheOnlyRequest(1, Request::BAND_ALL, 0, 0, false)), 0);
    EXPECT_EQ(session.seen, answers);
  }
}

}  // namespace
}  // namespace ky_loc_fw
