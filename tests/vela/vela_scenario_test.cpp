// The scenario parser: one file with every directive, and the first error of
// bad files reported with its line; then the neighbourhood's answers.
#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "host/libvela_client/distinct_measurements.h"
#include "host/libvela_client/neighbourhood.h"
#include "host/libvela_client/scenario_parser.h"

namespace ky_loc_fw {
namespace vela_sim {
namespace {

std::string Text(const std::vector<uint8_t>& bytes) {
  return std::string(bytes.begin(), bytes.end());
}

TEST(VelaScenario, ReportsTheFirstErrorWithItsLine) {
  const std::string ap = "ap bssid=00:11:22:33:44:55 channel=6";
  const std::pair<std::string, std::string> cases[] = {
      {"# fine\n\nbogus 1", "line 3: unknown directive 'bogus'"},
      {ap + " ies=0005414243", "line 1: ies: the last element runs past the end"},
      {ap + "\n" + ap, "line 2: access point 00:11:22:33:44:55 already defined on line 1"},
      {"repeat 5", "line 1: repeat needs access points before it"},
      {ap + "\nrepeat 100001",
       "line 2: repeat takes the number of access points wanted, at most 100000"},
      {"ap bssid=0a:00:00:00:00:02 channel=1\n" + ap + "\nrepeat 3",
       "line 3: access point 0a:00:00:00:00:02 already defined on line 1"},
      {std::string(kMaxScenarioBytes + 1, '#'),
       "line 0: scenario longer than " + std::to_string(kMaxScenarioBytes) + " bytes"},
  };
  for (const auto& [text, message] : cases) {
    Scenario scenario;
    std::string error;
    EXPECT_FALSE(ParseScenario(text, &scenario, &error)) << message;
    EXPECT_EQ(error, message);
  }
}

TEST(VelaScenario, ReadsEveryDirective) {
  const char* text =
      "ap bssid=02:00:00:00:00:01 ssid=home channel=36 rssi=-50 interval=200 capability=0x0011 "
      "security=wpa2 txpower=17 cached probe vendor=0102\n"
      "ap bssid=02:00:00:00:00:02 channel=1 hidden ies=0004746573740301013d0101\n"
      "ap bssid=02:00:00:00:00:03 channel=11 ies=0003616263\n"
      "range 02:00:00:00:00:09 distance=1500 plain\n"
      "repeat 7  # one copy of each, then a second of the first\r\n"
      "builtin\n"
      "latency 250\n"
      "fault create\n"
      "fault null 1,4-6\n"
      "fault status * -3\n";
  Scenario s, builtin;
  std::string error;
  ASSERT_TRUE(ParseScenario(text, &s, &error)) << error;
  ASSERT_TRUE(ParseScenario(DefaultScenarioText(), &builtin, &error)) << error;
  ASSERT_EQ(s.aps.size(), 7 + builtin.aps.size());
  EXPECT_EQ(s.aps[7].bssid, builtin.aps[0].bssid);
  const ScenarioAp& home = s.aps[0];
  // Addresses, channels, names and values show end to end (ScanEndToEnd).
  EXPECT_EQ(std::make_tuple(home.band, home.security, home.txPowerDbm), std::make_tuple(1, 3, 17));
  EXPECT_TRUE(home.cached && home.probe && !home.hidden);
  // Generated elements (SSID, rates, DS parameter set on 36), then the vendor element.
  EXPECT_EQ(
      std::vector<uint8_t>(home.ies.end() - 10, home.ies.end()),
      (std::vector<uint8_t>{3, 1, 36, 221, 5, kVendorOui[0], kVendorOui[1], kVendorOui[2], 1, 2}));
  // A hidden access point sends an empty SSID element and has no name;
  // without ssid= the name comes from the SSID element.
  EXPECT_TRUE(s.aps[1].hidden && s.aps[1].ssid.empty());
  EXPECT_EQ(s.aps[1].ies, (std::vector<uint8_t>{0, 0, 3, 1, 1, 61, 1, 1}));
  EXPECT_EQ(Text(s.aps[2].ssid), "abc");
  // Copy k: an address of its own, the name with -k (in its element too),
  // on 2.4 GHz k channels further on, k dB weaker.
  const ScenarioAp& copy = s.aps[5];
  EXPECT_EQ(std::make_tuple(copy.bssid, Text(copy.ssid), copy.channel, copy.rssiDbm),
            std::make_tuple(Mac48{0x0a0000000005}, std::string("abc-1"), 12u, -66));
  EXPECT_EQ(Text(copy.ies), std::string("\0\5abc-1", 7));

  for (uint32_t id : {1u, 4u, 6u}) EXPECT_TRUE(s.HasFault(FaultKind::kNull, id)) << id;
  for (uint32_t id : {0u, 3u, 7u}) EXPECT_FALSE(s.HasFault(FaultKind::kNull, id)) << id;
  int32_t status = 0;
  EXPECT_TRUE(s.StatusFault(77, &status));
  EXPECT_EQ(status, -3);
}

// One neighbourhood answers the rows in order: cache rows see what earlier
// scans found. Each answer: its source (0 fresh, 1 cache), then the last byte
// of each access point's BSSID.
TEST(VelaNeighbourhood, AnswersHonourModesBandsChannelsAndFilters) {
  using Request = VELADiscoveryScanRequest;
  const auto kCacheOnly = Request::KIND_CACHE_ONLY, kFallback = Request::KIND_CACHE_FALLBACK;
  const auto kFresh = Request::KIND_FRESH_SCAN;
  const auto all = Request::BAND_ALL, low = Request::BAND_2_4_GHZ, high = Request::BAND_5_GHZ;
  const struct {
    Request::eRequestKind kind;
    Request::eBand band;
    bool hidden;          // hidden access points too
    unsigned int wanted;  // fewer cached results than this: a fresh scan answers
    std::vector<unsigned int> channels;
    std::vector<std::string> ssids;
    const char* answer;
  } cases[] = {
      {kCacheOnly, all, true, 0, {}, {}, "1: 4"},  // only "cached" so far
      {kFallback, all, false, 1, {}, {}, "1: 4"},
      {kFallback, high, false, 2, {}, {}, "0: 3 4"},
      {kFresh, low, false, 0, {}, {}, "0: 1 2"},
      {kCacheOnly, all, false, 0, {}, {}, "1: 1 2 3 4"},
      {kCacheOnly, low, true, 0, {}, {}, "1: 1 2 5"},
      {kFresh, all, false, 0, {6, 5745}, {}, "0: 2 4"},
      {kFresh, all, false, 0, {}, {"gamma", "alpha", "alph"}, "0: 1 3"},
  };
  Scenario scenario;
  std::string error;
  ASSERT_TRUE(
      ParseScenario("ap bssid=02:00:00:00:00:01 ssid=alpha channel=1\n"
                    "ap bssid=02:00:00:00:00:02 ssid=beta channel=6\n"
                    "ap bssid=02:00:00:00:00:03 ssid=gamma channel=36\n"
                    "ap bssid=02:00:00:00:00:04 ssid=delta channel=149 cached\n"
                    "ap bssid=02:00:00:00:00:05 channel=11 hidden\n",
                    &scenario, &error))
      << error;
  Neighbourhood street(scenario, 1000000);
  uint64_t now_us = 1000000;
  for (const auto& c : cases) {
    SentRequest r;
    r.kind = c.kind;
    r.band = c.band;
    r.cacheFlag = r.scanFlag = c.hidden;
    r.fallbackParam = c.wanted;
    r.hasChannels = !c.channels.empty();
    r.channels = c.channels;
    for (const std::string& s : c.ssids) {
      r.ssidFilter.emplace_back().setSSID(reinterpret_cast<const unsigned char*>(s.data()),
                                          static_cast<int>(s.size()));
    }
    const Answer answer = street.AnswerDiscovery(r, now_us += 1000);
    const auto& d = static_cast<const VELADiscoveryScanResponse&>(*answer.response);
    std::string seen = std::to_string(d.scanSource) + ":";
    for (uint32_t i = 0; i < d.measurements.getCount(); ++i) {
      seen += " " + std::to_string(d.measurements[i]->bssid.getLo24());
    }
    EXPECT_EQ(seen, c.answer) << c.kind << " " << c.band;
  }
}

}  // namespace
}  // namespace vela_sim
}  // namespace ky_loc_fw
