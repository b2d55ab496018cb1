// What a hostile or broken daemon could deliver to a client: decoding refuses
// wrong shapes and drops partial records, an SSID stays inside its field, and
// the element summary says what the elements say, cut short or not. (Slices
// of the pool are checked through teskctl's tables, and fuzzed.)
#include <algorithm>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "teskclient/information_elements.h"
#include "teskclient/result_decoding.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<ObjectArg> Args(std::vector<Bytes>* buffers) {
  std::vector<ObjectArg> args;
  for (Bytes& b : *buffers) args.push_back({ObjectBuf{b.empty() ? nullptr : b.data(), b.size()}});
  return args;
}

// "dd03 00 50 f2": hex digits, spaces ignored.
Bytes Hex(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

TEST(ResultDecodingTest, NothingIsReadOutsideWhatWasDelivered) {
  // Wrong counts, or buffer 0 not exactly the header's (16) or the status's (4) size.
  const std::pair<uint32_t, size_t> bad[] = {
      {5, 16}, {OBJECT_COUNTS(4, 1, 0, 0), 16}, {4, 15}, {4, 17}, {4, 0}, {4, 4}, {5, 3}, {5, 8}};
  teskclient::DiscoveryResults discovery;
  teskclient::RangingResults ranging;
  for (const auto& [counts, first] : bad) {
    std::vector<Bytes> buffers = {Bytes(first), Bytes(160), {}, {}, {}};
    const std::vector<ObjectArg> args = Args(&buffers);
    EXPECT_FALSE(DecodeDiscoveryDelivery(args.data(), counts, &discovery)) << counts << first;
    EXPECT_FALSE(DecodeRangingDelivery(args.data(), counts, &ranging)) << counts << first;
  }

  constexpr size_t kRecord = sizeof(WifiScanMeasurement), kInfo = sizeof(WifiMeasurementInfo);
  std::vector<Bytes> buffers = {Bytes(16), Bytes(kRecord + 159, 0xAB), Bytes(kInfo + 63), {1, 2}};
  const std::vector<ObjectArg> args = Args(&buffers);
  ASSERT_TRUE(teskclient::DecodeDiscoveryDelivery(args.data(), 4, &discovery));
  EXPECT_EQ(discovery.records.size() + discovery.infos.size(), 2u);
  EXPECT_EQ(discovery.records[0].bssidLo24, 0xABABABABu);
  EXPECT_EQ(discovery.pool, (Bytes{1, 2}));
  EXPECT_EQ(discovery.dropped_bytes, 159u + 63u);

  WifiScanMeasurement r{};
  memset(r.ssid, 'x', sizeof r.ssid);
  r.ssidLength = 4;
  EXPECT_TRUE(teskclient::SsidOf(r).empty()) << "not present";
  r.ssidPresent = 1;
  EXPECT_EQ(teskclient::SsidOf(r).size(), 4u);
  r.ssidLength = 500;
  EXPECT_EQ(teskclient::SsidOf(r).size(), 32u);
}

TEST(InformationElementsTest, WalkAndSummaryStayInsideTheBytes) {
  // SSID, channel, security, vendor OUIs, then "!" when the walk stopped at
  // an element cut short.
  const std::pair<std::string, std::string> listings[] = {
      {"000161 030106 0700", "a|6|none|"},                              // the last element is empty
      {"dd02ffff ddff" + std::string(510, '1'), "|-1|none|11:11:11 "},  // the longest at the end
      {"000161 300a0102", "a|-1|none|!"},
      {"3201", "|-1|none|!"},
      // RSN: version 1, group CCMP, pairwise CCMP, AKMs PSK and SAE, capabilities.
      {"0000 3018 0100 000fac04 0100 000fac04 0200 000fac02 000fac08 0000 030124",
       "|36|RSN:PSK,SAE/CCMP|"},
      {"3d029500", "|149|none|"},  // HT operation when there is no DS element
      {"dd16 0050f201 0100 0050f202 0100 0050f202 0100 0050f202", "|-1|WPA:PSK/TKIP|00:50:f2 "},
      {"3006 0100 000fac04", "|-1|RSN:?/CCMP|"},  // cut after the group suite
      // Each OUI once, in order; the last element is too short for one.
      {"dd04067e5c09 dd0400101802 dd04067e5c01 dd020102", "|-1|none|06:7e:5c 00:10:18 "},
      {"300e 0100 000fac63 0000 0100 01020304", "|-1|RSN:01:02:03-4/00:0f:ac-99|"},
  };
  for (const auto& [hex, expected] : listings) {
    const Bytes bytes = Hex(hex);
    const teskclient::IeSummary s = teskclient::SummariseIes(bytes.data(), bytes.size());
    std::string shown = std::string(s.ssid.begin(), s.ssid.end()) + "|" +
                        std::to_string(s.channel) + "|" + s.security + "|";
    for (const teskclient::Oui& oui : s.vendor_ouis) shown += teskclient::FormatOui(oui) + " ";
    if (s.truncated) shown += "!";
    EXPECT_EQ(shown, expected) << hex;
  }
}

}  // namespace
