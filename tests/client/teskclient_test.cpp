// What a hostile or broken daemon could deliver to a client: decoding refuses
// wrong shapes, drops partial records and checks every slice; the element walk
// and its summary stay inside the bytes.
#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "teskclient/information_elements.h"
#include "teskclient/result_decoding.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::vector<ObjectArg> Args(std::vector<Bytes>* buffers) {
  std::vector<ObjectArg> args(buffers->size());
  for (size_t i = 0; i < args.size(); ++i) {
    Bytes& b = (*buffers)[i];
    args[i].b = ObjectBuf{b.empty() ? nullptr : b.data(), b.size()};
  }
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
  EXPECT_FALSE(teskclient::DecodeDiscoveryDelivery(nullptr, 4, &discovery));

  constexpr size_t kRecord = sizeof(WifiScanMeasurement), kInfo = sizeof(WifiMeasurementInfo);
  std::vector<Bytes> buffers = {Bytes(16), Bytes(kRecord + 159, 0xAB), Bytes(kInfo + 63), {1, 2}};
  std::vector<ObjectArg> args = Args(&buffers);
  ASSERT_TRUE(teskclient::DecodeDiscoveryDelivery(args.data(), 4, &discovery));
  EXPECT_EQ(discovery.records.size() + discovery.infos.size(), 2u);
  EXPECT_EQ(discovery.records[0].bssidLo24, 0xABABABABu);
  EXPECT_EQ(discovery.pool, (Bytes{1, 2}));
  EXPECT_EQ(discovery.dropped_bytes, 159u + 63u);

  buffers = {Bytes(4), {}, {}, {}, {}};
  args = Args(&buffers);
  for (int i = 1; i < 5; ++i) args[i].b = ObjectBuf{nullptr, 4096};  // null, yet claims bytes
  ASSERT_TRUE(teskclient::DecodeRangingDelivery(args.data(), 5, &ranging));
  EXPECT_TRUE(ranging.records.empty() && ranging.pool.empty() && ranging.macs.empty());

  ranging.pool.assign(10, 0x5A);
  ranging.infos.resize(3);
  ranging.macs.resize(2);
  WifiScanMeasurement r{};
  r.bytesOffset = 2, r.bytesLength = 4, r.elementAOffset = 6, r.elementALength = 4;
  r.firstInfoIndex = 1, r.infoCount = 2, r.firstMacIndex = 1, r.macCount = 1;
  teskclient::RecordParts parts = teskclient::PartsOf(ranging, r);
  EXPECT_TRUE(parts.bytes.valid && parts.element_a.valid && parts.element_b.valid &&
              parts.infos_valid && parts.macs_valid);
  EXPECT_EQ(parts.infos, ranging.infos.data() + 1);
  EXPECT_EQ(parts.macs, ranging.macs.data() + 1);
  r.elementBOffset = 9, r.elementBLength = 2, r.firstInfoIndex = 2;
  r.firstMacIndex = 0xFFFFFFFF, r.macCount = 2;  // wraps
  parts = teskclient::PartsOf(ranging, r);
  EXPECT_TRUE(parts.bytes.valid);
  EXPECT_FALSE(parts.element_b.valid || parts.infos_valid || parts.macs_valid);
  EXPECT_EQ(parts.info_count + parts.mac_count, 0u);

  memset(r.ssid, 'x', sizeof r.ssid);
  r.ssidLength = 4;
  EXPECT_TRUE(teskclient::SsidOf(r).empty()) << "not present";
  r.ssidPresent = 1;
  EXPECT_EQ(teskclient::SsidOf(r).size(), 4u);
  r.ssidLength = 500;
  EXPECT_EQ(teskclient::SsidOf(r).size(), 32u);
}

TEST(InformationElementsTest, WalkAndSummaryStayInsideTheBytes) {
  // The ids walked, then "!" when it stopped at a truncated element.
  const std::pair<std::string, std::string> walks[] = {
      {"", ""},
      {"000161 030106 0700", "0 3 7 "},  // the last one is empty
      {"dd02ffff 30ff" + std::string(510, '1'), "221 48 "},
      {"000161 300a0102", "0 !"},
      {"3201", "!"},
  };
  for (const auto& [hex, expected] : walks) {
    const Bytes bytes = Hex(hex);
    teskclient::IeWalker walker(bytes.data(), bytes.size());
    std::string ids;
    teskclient::InformationElement ie;
    while (walker.Next(&ie)) {
      ids += std::to_string(ie.id) + " ";
      EXPECT_LE(ie.data + ie.length, bytes.data() + bytes.size());
    }
    EXPECT_EQ(ids + (walker.truncated() ? "!" : ""), expected) << hex;
  }
  teskclient::InformationElement ie;
  EXPECT_FALSE(teskclient::IeWalker(nullptr, 100).Next(&ie));

  // SSID, channel, security, vendor OUIs.
  const std::pair<std::string, std::string> listings[] = {
      {"000463616665 03010b", "cafe|11|none|"},
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
    EXPECT_EQ(shown, expected) << hex;
  }
}

}  // namespace
