// teskctl's tables: one row per station from the record and its elements,
// pools checked against what came. (Its JSON is checked end to end.)
#include <cstdio>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "table_printer.h"

namespace {

// What `print` writes.
template <typename Print>
std::string Printed(Print print) {
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  print(out);
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
  teskclient::DiscoveryResults found;
  static_cast<teskclient::ScanRecords&>(found) = results;
  found.header = {7, 9, 0};
  const std::string discovery = Printed([&](FILE* out) { PrintDiscoveryTable(out, found); });
  const std::string ranging = Printed([&](FILE* out) { PrintRangingTable(out, results); });
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
