// teskctl's table: one row per station from the record and its elements,
// and the ranging form with its addresses, pools checked against what came.
#include "table_printer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

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

void PrintDiscovery(FILE* out, const teskclient::RangingResults& results) {
  teskclient::DiscoveryResults discovery;
  static_cast<teskclient::ScanRecords&>(discovery) = results;
  discovery.header = {7, 9, 0};
  PrintDiscoveryTable(out, discovery);
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

TEST(TablePrinterTest, DiscoveryRowsShowWhatTheElementsSay) {
  teskclient::RangingResults results;
  // SSID "home", DS channel 6, RSN PSK/CCMP, a vendor element.
  const uint8_t ies[] = {0,    4,    'h',  'o', 'm', 'e', 3,    1,    6,    48,   20, 1, 0,
                         0x00, 0x0F, 0xAC, 4,   1,   0,   0x00, 0x0F, 0xAC, 4,    1,  0, 0x00,
                         0x0F, 0xAC, 2,    0,   0,   221, 4,    0x06, 0x7E, 0x5C, 1};
  results.pool.assign(ies, ies + sizeof ies);
  WifiScanMeasurement home = Record(0x00AABB, 0xCCDDEE, "home");
  home.beaconIesLength = sizeof ies;
  WifiScanMeasurement odd = Record(1, 2, "\x01z");
  odd.beaconIesOffset = 100;  // beyond the pool
  odd.beaconIesLength = 4;
  results.records = {home, odd};
  const std::string table = Printed(PrintDiscovery, results);
  const std::string home_row = std::string("00:aa:bb:cc:dd:ee  home") + std::string(33, ' ') +
                               "6  RSN:PSK/CCMP              06:7e:5c\n";
  const std::string expected[] = {
      "scanStatus 0  response_value 7  response_word 9  2 records\n", home_row, " ies=0+37\n",
      "00:00:01:00:00:02  <017a>                               -  -                         -\n",
      " ies=100+4(bad)\n"};
  for (const std::string& line : expected) {
    EXPECT_NE(table.find(line), std::string::npos) << line;
  }
}

TEST(TablePrinterTest, RangingListsEachRecordsAddresses) {
  teskclient::RangingResults results;
  results.scanStatus = 3;
  results.macs = {{0x000002, 0x0A0B0C}, {0x000003, 0x0A0B0C}};
  WifiScanMeasurement r = Record(0x0A0B0C, 0x000001, "ap");
  r.macCount = 2;
  WifiScanMeasurement bad = Record(0x0A0B0C, 0x000009, "x");
  bad.firstMacIndex = 1;
  bad.macCount = 5;
  results.records = {r, bad};
  const std::string table = Printed(PrintRangingTable, results);
  const char* expected[] = {"scanStatus 3  2 records  2 addresses\n", " mac=0+2\n",
                            "    address 0a:0b:0c:00:00:02\n", "    address 0a:0b:0c:00:00:03\n",
                            " mac=1+5(bad)\n"};
  for (const char* line : expected) EXPECT_NE(table.find(line), std::string::npos) << line;
  EXPECT_EQ(table.find("address", table.find("mac=1+5")), std::string::npos)
      << "no address of a record whose range is bad";
}

}  // namespace
