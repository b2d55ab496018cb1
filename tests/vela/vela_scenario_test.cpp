// The scenario parser: one file with every directive, and the first error of
// bad files reported with its line.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "host/libvela_client/information_elements.h"
#include "host/libvela_client/scenario_parser.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_sim {
namespace {

TEST(VelaScenario, ReportsTheFirstErrorWithItsLine) {
  const std::string ap = "ap bssid=00:11:22:33:44:55 channel=6";
  const struct Case {
    std::string text;
    const char* error;
  } cases[] = {
      {"# fine\n\nlatency x", "line 3: latency takes one number of milliseconds, 0 to 600000"},
      {"bogus 1", "line 1: unknown directive 'bogus'"},
      {"ap bssid=00:11:22:33:44:55 channel=15", "line 1: bad channel '15' (1-14 or 32-177)"},
      {ap + " ies=0005414243", "line 1: ies: the last element runs past the end"},
      {ap + "\n" + ap, "line 2: access point 00:11:22:33:44:55 already defined on line 1"},
      {"fault null 3-1", "line 1: bad request ids '3-1' (*, N, N-M, comma-separated)"},
      {"repeat 5", "line 1: repeat needs access points before it"},
      {ap + "\nrepeat 100001",
       "line 2: repeat takes the number of access points wanted, at most 100000"},
      {"ap bssid=0a:00:00:00:00:02 channel=1\n" + ap + "\nrepeat 3",
       "line 3: access point 0a:00:00:00:00:02 already defined on line 1"},
      {"builtin\n" + ap + " vendor=zz",
       "line 2: vendor needs an even number of hex digits, at most 252 bytes"},
  };
  for (const Case& c : cases) {
    Scenario scenario;
    std::string error;
    EXPECT_FALSE(ParseScenario(c.text, &scenario, &error)) << c.error;
    EXPECT_EQ(error, c.error);
  }
  Scenario scenario;
  std::string error;
  EXPECT_FALSE(ParseScenario(std::string(kMaxScenarioBytes + 1, '#'), &scenario, &error));
  EXPECT_EQ(error, "line 0: scenario longer than " + std::to_string(kMaxScenarioBytes) + " bytes");
}

// Copies keep each original's frame but get an address, a name and (on
// 2.4 GHz) a channel of their own, in the elements too.
TEST(VelaScenario, RepeatsTheBuiltInFramesIntoALargeNeighbourhood) {
  Scenario s;
  std::string error;
  ASSERT_TRUE(ParseScenario("builtin\nlatency 0\nrepeat 10000\n", &s, &error)) << error;
  ASSERT_EQ(s.aps.size(), 10000u);
  EXPECT_EQ(s.latencyMs, 0u);
  Scenario builtin;
  ASSERT_TRUE(ParseScenario(DefaultScenarioText(), &builtin, &error)) << error;
  const size_t n = builtin.aps.size();
  std::set<Mac48> bssids;
  for (const ScenarioAp& ap : s.aps) bssids.insert(ap.bssid);
  EXPECT_EQ(bssids.size(), s.aps.size());
  for (size_t i : {n, 3 * n + 5, s.aps.size() - 1}) {
    const ScenarioAp& copy = s.aps[i];
    const ScenarioAp& original = builtin.aps[i % n];
    const std::string suffix = "-" + std::to_string(i / n);
    const std::string name(copy.ssid.begin(), copy.ssid.end());
    if (!original.hidden) {
      EXPECT_EQ(name.substr(name.size() - suffix.size()), suffix) << i;
    }
    std::vector<ElementRef> elements;
    ASSERT_TRUE(SplitElements(copy.ies, &elements)) << i;
    const ElementRef* ssid = FindElement(elements, 0);
    ASSERT_NE(ssid, nullptr) << i;
    EXPECT_EQ(
        std::string(copy.ies.begin() + ssid->offset, copy.ies.begin() + ssid->offset + ssid->len),
        name)
        << i;
    const ElementRef* ds = FindElement(elements, 3);
    if (ds != nullptr) {
      EXPECT_EQ(copy.ies[ds->offset], copy.channel) << i;
    }
    if (original.band == 1) {
      EXPECT_EQ(copy.channel, original.channel) << i;
    }
    EXPECT_EQ(copy.ies.size() - copy.ssid.size(), original.ies.size() - original.ssid.size()) << i;
  }
}

TEST(VelaScenario, ReadsEveryDirective) {
  const char* text =
      "latency 250  # slow radio\r\n"
      "ap bssid=02:00:00:00:00:01 ssid=home channel=36 rssi=-50 interval=200 capability=0x0011 "
      "security=wpa2 txpower=17 cached probe vendor=0102\n"
      "ap bssid=02:00:00:00:00:02 channel=1 hidden ies=0004746573740301010a0100\n"
      "ap bssid=02:00:00:00:00:03 channel=11 ies=0003616263\n"
      "range 02:00:00:00:00:09 distance=1500 spread=30 rssi=-40\n"
      "range 02:00:00:00:00:0a plain\n"
      "fault create\n"
      "fault null 1,4-6\n"
      "fault status * -3\n";
  Scenario s;
  std::string error;
  ASSERT_TRUE(ParseScenario(text, &s, &error)) << error;
  EXPECT_EQ(s.latencyMs, 250u);
  EXPECT_TRUE(s.refuseCreate);
  ASSERT_EQ(s.aps.size(), 3u);
  const ScenarioAp& home = s.aps[0];
  EXPECT_EQ(std::string(home.ssid.begin(), home.ssid.end()), "home");
  EXPECT_EQ(std::make_tuple(home.bssid, home.frequencyMhz, home.band, home.rssiDbm, home.intervalTu,
                            home.capability, home.security, home.txPowerDbm),
            std::make_tuple(0x020000000001u, 5180u, 1, -50, 200u, 0x11, 3, 17));
  EXPECT_TRUE(home.cached && home.probe && !home.hidden);
  // Generated elements (SSID, rates, DS parameter set on 36), then the vendor element.
  const uint8_t* oui = vela_test::kVendorOui;
  EXPECT_EQ(std::vector<uint8_t>(home.ies.end() - 10, home.ies.end()),
            (std::vector<uint8_t>{3, 1, 36, 221, 5, oui[0], oui[1], oui[2], 1, 2}));
  // A hidden access point sends an empty SSID element and has no name;
  // without ssid= the name comes from the SSID element.
  EXPECT_TRUE(s.aps[1].hidden && s.aps[1].ssid.empty());
  EXPECT_EQ(s.aps[1].ies, (std::vector<uint8_t>{0, 0, 3, 1, 1, 10, 1, 0}));
  EXPECT_EQ(std::string(s.aps[2].ssid.begin(), s.aps[2].ssid.end()), "abc");

  ASSERT_EQ(s.ranges.size(), 2u);
  EXPECT_EQ(std::make_tuple(s.ranges[0].distanceMm, s.ranges[0].spreadMm, s.ranges[0].rssiDbm),
            std::make_tuple(1500u, 30u, -40));
  EXPECT_TRUE(s.ranges[1].plain);
  for (uint32_t id : {1u, 4u, 6u}) EXPECT_TRUE(s.HasFault(FaultKind::kNull, id)) << id;
  for (uint32_t id : {0u, 3u, 7u}) EXPECT_FALSE(s.HasFault(FaultKind::kNull, id)) << id;
  int32_t status = 0;
  EXPECT_TRUE(s.StatusFault(77, &status));
  EXPECT_EQ(status, -3);
}

}  // namespace
}  // namespace vela_sim
}  // namespace ky_loc_fw
