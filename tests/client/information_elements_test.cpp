// The element walk and what a listing makes of it, on truncated and malformed input.
#include "teskclient/information_elements.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;

// "dd03 00 50 f2": hex digits, spaces ignored.
Bytes Hex(std::string hex) {
  hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
  Bytes out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// Version 1, group CCMP, pairwise CCMP, AKMs PSK and SAE, capabilities.
const std::string kRsnPskSae = "0100 000fac04 0100 000fac04 0200 000fac02 000fac08 0000";

TEST(InformationElementsTest, WalkAndSummaryStayInsideTheBytes) {
  const struct Walk {
    std::string hex, ids;  // the ids walked, then "!" when it stopped at a truncated element
  } walks[] = {
      {"", ""},
      {"000161 030106 0700", "0 3 7 "},  // the last one is empty
      {"dd02ffff 30ff" + std::string(510, '1'), "221 48 "},
      {"000161 300a0102", "0 !"},
      {"3201", "!"},
  };
  for (const Walk& c : walks) {
    const Bytes bytes = Hex(c.hex);
    teskclient::IeWalker walker(bytes.data(), bytes.size());
    std::string ids;
    teskclient::InformationElement ie;
    while (walker.Next(&ie)) {
      ids += std::to_string(ie.id) + " ";
      EXPECT_LE(ie.data + ie.length, bytes.data() + bytes.size());
    }
    EXPECT_EQ(ids + (walker.truncated() ? "!" : ""), c.ids) << c.hex;
  }
  teskclient::InformationElement ie;
  EXPECT_FALSE(teskclient::IeWalker(nullptr, 100).Next(&ie));

  const struct Listing {
    std::string hex, shown;  // SSID, channel, security, vendor OUIs
  } listings[] = {
      {"000463616665 03010b", "cafe|11|none|"},
      {"0000 3018" + kRsnPskSae + " 030124", "|36|RSN:PSK,SAE/CCMP|"},
      {"3d029500", "|149|none|"},  // HT operation when there is no DS element
      {"dd16 0050f201 0100 0050f202 0100 0050f202 0100 0050f202", "|-1|WPA:PSK/TKIP|00:50:f2 "},
      {"3006 0100 000fac04", "|-1|RSN:?/CCMP|"},  // cut after the group suite
      // Each OUI once, in order; the last element is too short for one.
      {"dd04067e5c09 dd0400101802 dd04067e5c01 dd020102", "|-1|none|06:7e:5c 00:10:18 "},
      {"300e 0100 000fac63 0000 0100 01020304", "|-1|RSN:01:02:03-4/00:0f:ac-99|"},
  };
  for (const Listing& c : listings) {
    const Bytes bytes = Hex(c.hex);
    const teskclient::IeSummary s = teskclient::SummariseIes(bytes.data(), bytes.size());
    std::string shown = std::string(s.ssid.begin(), s.ssid.end()) + "|" +
                        std::to_string(s.channel) + "|" + s.security + "|";
    for (const teskclient::Oui& oui : s.vendor_ouis) shown += teskclient::FormatOui(oui) + " ";
    EXPECT_EQ(shown, c.shown) << c.hex;
  }
  const Bytes rsn = Hex(kRsnPskSae);
  for (size_t size = 0; size <= rsn.size(); ++size) {
    // Exactly `size` bytes, so that a read past them is caught by the sanitizer.
    const Bytes body(rsn.begin(), rsn.begin() + static_cast<long>(size));
    EXPECT_EQ(teskclient::ParseRsnBody(body.data(), body.size()).complete, size >= 22u) << size;
  }
}

}  // namespace
