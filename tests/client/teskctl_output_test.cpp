// teskctl's output: the JSON encoder's escaping and the UTF-8 check that
// decides whether an SSID is printed as text or as hex; the tables, one row
// per station from the record and its elements, pools checked against what came.
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "json_writer.h"
#include "table_printer.h"

namespace {

TEST(JsonWriterTest, EscapesAndTellsTextFromBytes) {
  const std::pair<std::string, std::string> escaped[] = {
      {"\" \\ \n\r\t\b\f", "\"\\\" \\\\ \\n\\r\\t\\b\\f\""},
      {std::string("\0\x01\x1f\x7f", 4), "\"\\u0000\\u0001\\u001f\\u007f\""},
      {"caf\xc3\xa9 \xf0\x9f\x93\xb6", "\"caf\xc3\xa9 \xf0\x9f\x93\xb6\""},
  };
  for (const auto& [in, out] : escaped) EXPECT_EQ(EscapeJsonString(in), out);
  const auto valid = [](const std::string& text) {
    return IsValidUtf8(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  };
  for (const char* text : {"", "ascii", "\xc3\xa9", "\xe2\x82\xac", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(valid(text)) << testing::PrintToString(text);
  }
  // Cut short, a lone continuation, overlong, a surrogate, past U+10FFFF, never valid.
  for (const char* text : {"\xc3", "\xe2\x82", "\x80", "\xc0\xaf", "\xe0\x80\xaf", "\xed\xa0\x80",
                           "\xf4\x90\x80\x80", "\xff"}) {
    EXPECT_FALSE(valid(text)) << testing::PrintToString(text);
  }
}

std::string Printed(void (*print)(FILE*, const teskclient::RangingResults&),
                    const teskclient::RangingResults& results) {
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  print(out, results);
  fclose(out);
  std::string printed(text, size);
  free(text);
  return printed;
}

WifiScanMeasurement Record(uint32_t hi24, uint32_t lo24, const char* ssid) {
  WifiScanMeasurement r{};
  r.bssidHi24 = hi24;
  r.bssidLo24 = lo24;
  r.ssidPresent = 1;
  r.ssidLength = static_cast<uint16_t>(strlen(ssid));
  memcpy(r.ssid, ssid, r.ssidLength);
  return r;
}

TEST(TablePrinterTest, RowsShowWhatTheElementsSayAndNothingOfBadRanges) {
  teskclient::RangingResults results;
  // SSID "home", DS channel 6, RSN PSK/CCMP, a vendor element.
  const uint8_t ies[] = {0,    4,    'h',  'o', 'm', 'e', 3,    1,    6,    48,   20, 1, 0,
                         0x00, 0x0F, 0xAC, 4,   1,   0,   0x00, 0x0F, 0xAC, 4,    1,  0, 0x00,
                         0x0F, 0xAC, 2,    0,   0,   221, 4,    0x06, 0x7E, 0x5C, 1};
  results.pool.assign(ies, ies + sizeof ies);
  results.scanStatus = 3;
  results.macs = {{0x000002, 0x0A0B0C}, {0x000003, 0x0A0B0C}};
  WifiScanMeasurement home = Record(0x00AABB, 0xCCDDEE, "home");
  home.beaconIesLength = sizeof ies;
  home.macCount = 2;
  WifiScanMeasurement odd = Record(1, 2, "\x01z");
  odd.beaconIesOffset = 100;  // beyond the pool
  odd.beaconIesLength = 4;
  odd.firstMacIndex = 1;
  odd.macCount = 5;
  results.records = {home, odd};
  const std::string discovery = Printed(
      [](FILE* out, const teskclient::RangingResults& ranging) {
        teskclient::DiscoveryResults as_discovery;
        static_cast<teskclient::ScanRecords&>(as_discovery) = ranging;
        as_discovery.header = {7, 9, 0};
        PrintDiscoveryTable(out, as_discovery);
      },
      results);
  const std::string ranging = Printed(PrintRangingTable, results);
  const std::pair<const std::string*, std::string> expected[] = {
      {&discovery, "scanStatus 0  response_value 7  response_word 9  2 records\n"},
      {&discovery, "00:aa:bb:cc:dd:ee  home" + std::string(33, ' ') +
                       "6  RSN:PSK/CCMP              06:7e:5c\n"},
      {&discovery, " ies=0+37 "},
      {&discovery,
       "00:00:01:00:00:02  <017a>                               -  -                         -\n"},
      {&discovery, " ies=100+4(bad) "},
      {&ranging, "scanStatus 3  2 records  2 addresses\n"},
      {&ranging, " mac=0+2\n    address 0a:0b:0c:00:00:02\n    address 0a:0b:0c:00:00:03\n"},
      {&ranging, " mac=1+5(bad)\n"}};
  for (const auto& [table, line] : expected) {
    EXPECT_NE(table->find(line), std::string::npos) << line << "\nin\n" << *table;
  }
  EXPECT_EQ(ranging.find("address", ranging.find("mac=1+5")), std::string::npos)
      << "no address of a record whose range is bad";
}

}  // namespace
