// The element walk over pooled beacon bytes, and what a listing makes of
// the elements, with truncated and malformed input.
#include "teskclient/information_elements.h"

#include <algorithm>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<uint8_t>;
using teskclient::InformationElement;

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts) {
    for (uint8_t byte : part) all.push_back(byte);
  }
  return all;
}

Bytes Ie(uint8_t id, Bytes data) {
  Bytes ie(data.size() + 2);
  ie[0] = id;
  ie[1] = static_cast<uint8_t>(data.size());
  std::copy(data.begin(), data.end(), ie.begin() + 2);
  return ie;
}

const Bytes kRsnPskCcmp = {1, 0, 0x00, 0x0F, 0xAC, 4, 1,    0,    0x00, 0x0F, 0xAC, 4,
                           2, 0, 0x00, 0x0F, 0xAC, 2, 0x00, 0x0F, 0xAC, 8,    0,    0};

TEST(IeWalkerTest, StopsAtTheEndOrAtATruncatedElement) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::vector<uint8_t> ids;
    bool truncated;
  } cases[] = {
      {"empty", {}, {}, false},
      {"two elements", Concat({Ie(0, {'a'}), Ie(3, {6})}), {0, 3}, false},
      {"zero-length element", Ie(7, {}), {7}, false},
      {"255 bytes that fit", Ie(221, Bytes(255, 1)), {221}, false},
      {"length runs past the end", Concat({Ie(0, {'a'}), Bytes{48, 10, 1, 2}}), {0}, true},
      {"one stray byte", Concat({Ie(3, {1}), Bytes{9}}), {3}, true},
      {"header only, length 1", Bytes{50, 1}, {}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    teskclient::IeWalker walker(c.bytes.data(), c.bytes.size());
    std::vector<uint8_t> ids;
    InformationElement ie;
    while (walker.Next(&ie)) {
      ids.push_back(ie.id);
      EXPECT_GE(ie.data, c.bytes.data());
      EXPECT_LE(ie.data + ie.length, c.bytes.data() + c.bytes.size());
    }
    EXPECT_EQ(ids, c.ids);
    EXPECT_EQ(walker.truncated(), c.truncated);
    EXPECT_FALSE(walker.Next(&ie)) << "stays at its end";
  }
  teskclient::IeWalker null_walker(nullptr, 100);
  InformationElement ie;
  EXPECT_FALSE(null_walker.Next(&ie));
}

TEST(IeSummaryTest, ReadsWhatAListingShows) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::string ssid;
    int channel;
    std::string security;
    std::vector<std::string> ouis;
  } cases[] = {
      {"open network", Concat({Ie(0, {'c', 'a', 'f', 'e'}), Ie(3, {11})}), "cafe", 11, "none", {}},
      {"RSN PSK and SAE",
       Concat({Ie(0, {}), Ie(48, kRsnPskCcmp), Ie(3, {36})}),
       "",
       36,
       "RSN:PSK,SAE/CCMP",
       {}},
      {"HT operation when there is no DS element", Ie(61, {149, 0}), "", 149, "none", {}},
      {"WPA vendor element",
       Ie(221, {0x00, 0x50, 0xF2, 1,    1, 0, 0x00, 0x50, 0xF2, 2,    1,
                0,    0x00, 0x50, 0xF2, 2, 1, 0,    0x00, 0x50, 0xF2, 2}),
       "",
       -1,
       "WPA:PSK/TKIP",
       {"00:50:f2"}},
      {"RSN cut after the group suite",
       Ie(48, {1, 0, 0x00, 0x0F, 0xAC, 4}),
       "",
       -1,
       "RSN:?/CCMP",
       {}},
      {"vendor OUIs once each, in order",
       Concat({Ie(221, {0x06, 0x7E, 0x5C, 9}), Ie(221, {0x00, 0x10, 0x18, 2}),
               Ie(221, {0x06, 0x7E, 0x5C, 1}), Ie(221, {0x01, 0x02})}),
       "",
       -1,
       "none",
       {"06:7e:5c", "00:10:18"}},
      {"unknown suite types by number",
       Ie(48, {1, 0, 0x00, 0x0F, 0xAC, 99, 0, 0, 1, 0, 1, 2, 3, 4}),
       "",
       -1,
       "RSN:01:02:03-4/00:0f:ac-99",
       {}},
  };
  EXPECT_EQ(teskclient::SummariseIes(nullptr, 0).security, "");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const teskclient::IeSummary summary = teskclient::SummariseIes(c.bytes.data(), c.bytes.size());
    EXPECT_EQ(std::string(summary.ssid.begin(), summary.ssid.end()), c.ssid);
    EXPECT_EQ(summary.channel, c.channel);
    EXPECT_EQ(summary.security, c.security);
    std::vector<std::string> ouis;
    for (const teskclient::Oui& oui : summary.vendor_ouis)
      ouis.push_back(teskclient::FormatOui(oui));
    EXPECT_EQ(ouis, c.ouis);
  }
}

TEST(IeSummaryTest, TruncatedRsnBodyReadsOnlyWhatIsThere) {
  for (size_t size = 0; size <= kRsnPskCcmp.size(); ++size) {
    // A copy of exactly `size` bytes, so that a read past it is caught by the sanitizer.
    const std::vector<uint8_t> body(kRsnPskCcmp.begin(), kRsnPskCcmp.begin() + size);
    const teskclient::SecuritySuites suites = teskclient::ParseRsnBody(body.data(), body.size());
    EXPECT_EQ(suites.complete, size >= 22u) << size;
  }
}

}  // namespace
