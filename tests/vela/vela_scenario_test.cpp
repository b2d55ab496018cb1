// The scenario parser and the built-in neighbourhood.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/libvela_client/information_elements.h"
#include "host/libvela_client/scenario.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_sim {
namespace {

std::vector<uint8_t> FromHex(const std::string& hex) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

TEST(VelaScenario, ReportsTheFirstErrorWithItsLine) {
  struct Case {
    const char* text;
    const char* error;
  } cases[] = {
      {"bogus 1", "line 1: unknown directive 'bogus'"},
      {"# fine\n\nlatency x", "line 3: latency takes one number of milliseconds, 0 to 600000"},
      {"latency 600001", "line 1: latency takes"},
      {"latency 1 2", "line 1: latency takes"},
      {"ap channel=6", "line 1: access point without bssid="},
      {"ap bssid=00:11:22:33:44:55", "line 1: access point without channel="},
      {"ap bssid=00:11:22:33:44 channel=6", "line 1: bad MAC address '00:11:22:33:44'"},
      {"ap bssid=00:11:22:33:44:5g channel=6", "line 1: bad MAC address"},
      {"ap bssid=00:11:22:33:44:55 channel=15", "line 1: bad channel '15' (1-14 or 32-177)"},
      {"ap bssid=00:11:22:33:44:55 channel=6x", "line 1: bad channel"},
      {"ap bssid=00:11:22:33:44:55 channel=6 rssi=5", "line 1: rssi must be -127 to 0 dBm"},
      {"ap bssid=00:11:22:33:44:55 channel=6 ies=000", "line 1: ies needs an even number"},
      {"ap bssid=00:11:22:33:44:55 channel=6 ies=0005414243",
       "line 1: ies: the last element runs past the end"},
      {"ap bssid=00:11:22:33:44:55 channel=6 ssid=hex:zz", "line 1: ssid=hex: needs"},
      {"ap bssid=00:11:22:33:44:55 channel=6 ssid=0123456789abcdef0123456789abcdefX",
       "line 1: ssid longer than 32 bytes"},
      {"ap bssid=00:11:22:33:44:55 channel=6 shiny", "line 1: unknown access point flag 'shiny'"},
      {"ap bssid=00:11:22:33:44:55 channel=6 colour=red",
       "line 1: unknown access point key 'colour'"},
      {"ap bssid=00:11:22:33:44:55 channel=6 security=wpa4", "line 1: security must be"},
      {"ap bssid=00:11:22:33:44:55 channel=6\nap bssid=00:11:22:33:44:55 channel=1",
       "line 2: access point 00:11:22:33:44:55 already defined on line 1"},
      {"range", "line 1: range needs a MAC address first"},
      {"range 00:11:22:33:44:55 distance=0", "line 1: distance must be 1 to 1000000 mm"},
      {"range 00:11:22:33:44:55 far", "line 1: unknown range key 'far'"},
      {"range 00:11:22:33:44:55\nrange 00:11:22:33:44:55", "line 2: range for"},
      {"fault", "line 1: fault needs a kind"},
      {"fault explode 1", "line 1: unknown fault 'explode'"},
      {"fault null", "line 1: fault null takes request ids"},
      {"fault null 3-1", "line 1: bad request ids '3-1'"},
      {"fault null 1,,2", "line 1: bad request ids"},
      {"fault null -1", "line 1: bad request ids"},
      {"fault status 1", "line 1: fault status takes request ids and a status"},
      {"fault status 1 x", "line 1: bad status 'x'"},
  };
  for (const Case& c : cases) {
    Scenario scenario;
    std::string error;
    EXPECT_FALSE(ParseScenario(c.text, &scenario, &error)) << c.text;
    EXPECT_EQ(error.compare(0, std::string(c.error).size(), c.error), 0)
        << c.text << " gave: " << error;
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
  EXPECT_EQ(home.bssid, 0x020000000001u);
  EXPECT_EQ(std::string(home.ssid.begin(), home.ssid.end()), "home");
  EXPECT_EQ(home.frequencyMhz, 5180u);
  EXPECT_EQ(home.band, 1);
  EXPECT_EQ(home.rssiDbm, -50);
  EXPECT_EQ(home.intervalTu, 200u);
  EXPECT_EQ(home.capability, 0x11);
  EXPECT_EQ(home.security, 3);
  EXPECT_EQ(home.txPowerDbm, 17);
  EXPECT_TRUE(home.cached && home.probe && !home.hidden);
  // Generated elements (SSID, rates, DS parameter set), then the vendor element.
  std::vector<ElementRef> elements;
  ASSERT_TRUE(SplitElements(home.ies, &elements));
  ASSERT_EQ(elements.size(), 4u);
  EXPECT_EQ(elements[0].id, 0);
  EXPECT_EQ(elements[2].id, 3);
  EXPECT_EQ(home.ies[elements[2].offset], 36);
  EXPECT_EQ(elements[3].id, 221);
  EXPECT_EQ(elements[3].len, 5);
  EXPECT_EQ(std::vector<uint8_t>(home.ies.begin() + static_cast<long>(elements[3].offset),
                                 home.ies.end()),
            (std::vector<uint8_t>{vela_test::kVendorOui[0], vela_test::kVendorOui[1],
                                  vela_test::kVendorOui[2], 1, 2}));

  // A hidden access point sends an empty SSID element and has no name.
  EXPECT_TRUE(s.aps[1].hidden);
  EXPECT_TRUE(s.aps[1].ssid.empty());
  EXPECT_EQ(s.aps[1].ies, FromHex("00000301010a0100"));
  // Without ssid= the name comes from the SSID element.
  EXPECT_EQ(std::string(s.aps[2].ssid.begin(), s.aps[2].ssid.end()), "abc");

  ASSERT_EQ(s.ranges.size(), 2u);
  EXPECT_EQ(s.ranges[0].distanceMm, 1500u);
  EXPECT_EQ(s.ranges[0].spreadMm, 30u);
  EXPECT_EQ(s.ranges[0].rssiDbm, -40);
  EXPECT_TRUE(s.ranges[1].plain);

  for (uint32_t id : {1u, 4u, 6u}) EXPECT_TRUE(s.HasFault(FaultKind::kNull, id)) << id;
  for (uint32_t id : {0u, 2u, 3u, 7u}) EXPECT_FALSE(s.HasFault(FaultKind::kNull, id)) << id;
  int32_t status = 0;
  EXPECT_TRUE(s.StatusFault(77, &status));
  EXPECT_EQ(status, -3);
  EXPECT_FALSE(s.HasFault(FaultKind::kDrop, 1));
}

TEST(VelaScenario, RefusesOverlongText) {
  Scenario s;
  std::string error;
  EXPECT_FALSE(ParseScenario(std::string(kMaxScenarioBytes + 1, '#'), &s, &error));
  EXPECT_NE(error.find("longer than"), std::string::npos);
}

// The built-in neighbourhood carries the real frames' data unchanged.
TEST(VelaDefaultNeighbourhood, MatchesTheCapturedFrames) {
  std::ifstream tsv(VELA_DATA_DIR "/beacon_ies.tsv");
  ASSERT_TRUE(tsv.good());
  struct Frame {
    std::string ssid_hex, ie_hex;
    unsigned int channel;
  };
  std::map<uint64_t, Frame> first_frame;
  std::string line;
  std::getline(tsv, line);  // header
  while (std::getline(tsv, line)) {
    std::istringstream fields(line);
    std::string id, subtype, bssid, channel, ssid_hex, ie_hex;
    std::getline(fields, id, '\t');
    std::getline(fields, subtype, '\t');
    std::getline(fields, bssid, '\t');
    std::getline(fields, channel, '\t');
    std::getline(fields, ssid_hex, '\t');
    std::getline(fields, ie_hex, '\t');
    VELAMacAddress mac;
    ASSERT_TRUE(vela_test::ParseMac(bssid, &mac)) << bssid;
    const uint64_t key = static_cast<uint64_t>(mac.getHi24()) << 24 | mac.getLo24();
    first_frame.emplace(key, Frame{ssid_hex, ie_hex, static_cast<unsigned>(std::stoul(channel))});
  }

  Scenario s;
  std::string error;
  ASSERT_TRUE(ParseScenario(DefaultScenarioText(), &s, &error)) << error;
  EXPECT_EQ(s.aps.size(), first_frame.size());
  std::set<int> bands;
  size_t own_long = 0;
  for (const ScenarioAp& ap : s.aps) {
    SCOPED_TRACE(ap.line);
    const auto frame = first_frame.find(ap.bssid);
    ASSERT_NE(frame, first_frame.end());
    EXPECT_EQ(ap.ssid, FromHex(frame->second.ssid_hex));
    EXPECT_EQ(ap.channel, frame->second.channel);
    const std::vector<uint8_t> real = FromHex(frame->second.ie_hex);
    ASSERT_GE(ap.ies.size(), real.size());
    EXPECT_EQ(std::vector<uint8_t>(ap.ies.begin(), ap.ies.begin() + static_cast<long>(real.size())),
              real);
    // Anything after the real elements is the vendor's own.
    std::vector<ElementRef> added;
    ASSERT_TRUE(SplitElements(
        std::vector<uint8_t>(ap.ies.begin() + static_cast<long>(real.size()), ap.ies.end()),
        &added));
    const size_t base = real.size();
    for (const ElementRef& e : added) {
      EXPECT_EQ(e.id, 221);
      EXPECT_EQ(std::vector<uint8_t>(ap.ies.begin() + static_cast<long>(base + e.offset),
                                     ap.ies.begin() + static_cast<long>(base + e.offset + 3)),
                std::vector<uint8_t>(vela_test::kVendorOui, vela_test::kVendorOui + 3));
      if (e.len >= 25) ++own_long;
    }
    bands.insert(ap.band);
  }
  EXPECT_EQ(bands, (std::set<int>{0, 1}));
  EXPECT_GE(own_long, 2u);
  EXPECT_FALSE(s.ranges.empty());
  EXPECT_TRUE(s.faults.empty());
  EXPECT_FALSE(s.refuseCreate);
}

}  // namespace
}  // namespace vela_sim
}  // namespace ky_loc_fw
