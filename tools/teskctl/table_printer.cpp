#include "table_printer.h"

#include <cinttypes>
#include <string>

#include "teskclient/information_elements.h"
#include "teskclient/mac_address.h"

namespace {

// Printable SSIDs as they are, anything else as <hex>.
std::string ShowSsid(const std::vector<uint8_t>& ssid) {
  bool printable = true;
  for (const uint8_t byte : ssid) printable = printable && byte >= 0x20 && byte < 0x7F;
  std::string text;
  if (printable) {
    text.assign(ssid.begin(), ssid.end());
    return text;
  }
  char hex[3];
  text = "<";
  for (const uint8_t byte : ssid) {
    snprintf(hex, sizeof hex, "%02x", byte);
    text += hex;
  }
  return text + ">";
}

std::string Range(const char* name, uint64_t first, uint64_t count, bool valid) {
  char text[64];
  snprintf(text, sizeof text, " %s=%" PRIu64 "+%" PRIu64 "%s", name, first, count,
           valid ? "" : "(bad)");
  return text;
}

void PrintRecord(FILE* out, const teskclient::ScanRecords& results, const WifiScanMeasurement& r) {
  const teskclient::RecordParts parts = teskclient::PartsOf(results, r);
  const teskclient::IeSummary ies = teskclient::SummariseIes(parts.ies.data, parts.ies.size);
  std::string ouis;
  for (const teskclient::Oui& oui : ies.vendor_ouis) {
    if (!ouis.empty()) ouis += ',';
    ouis += teskclient::FormatOui(oui);
  }
  const std::string channel = ies.channel >= 0 ? std::to_string(ies.channel) : "-";
  fprintf(out, "%-17s  %-32s  %4s  %-24s  %s\n",
          teskclient::FormatMacAddress(teskclient::FromWire(r.bssidLo24, r.bssidHi24)).c_str(),
          ShowSsid(teskclient::SsidOf(r)).c_str(), channel.c_str(),
          ies.security.empty() ? "-" : ies.security.c_str(), ouis.empty() ? "-" : ouis.c_str());

  fprintf(out, "    v64=%" PRIu64 " v32=%u,%u,%u,%u,%u,%u,%u,%u,%u,%u v16=%u,%u,%u,%u", r.value64,
          r.value32_1, r.value32_2, r.value32_3, r.value32_4, r.value32_5, r.value32_6, r.value32_7,
          r.value32_8, r.value32_9, r.value32_10, r.value16_1, r.value16_2, r.value16_3,
          r.value16_4);
  fprintf(out, " v8=%u,%u,%u,%u,%u,%u,%u,%u,%u ssid=%u/%u/%u", r.value8_1, r.value8_2, r.value8_3,
          r.value8_4, r.value8_5, r.value8_6, r.value8_7, r.value8_8, r.value8_9, r.ssidValid,
          r.ssidPresent, r.ssidLength);
  std::string pools = Range("info", r.firstInfoIndex, r.infoCount, parts.infos_valid);
  pools += Range("bytes", r.bytesOffset, r.bytesLength, parts.bytes.valid);
  pools += Range("A", r.elementAOffset, r.elementALength, parts.element_a.valid);
  pools += Range("B", r.elementBOffset, r.elementBLength, parts.element_b.valid);
  pools += Range("ies", r.beaconIesOffset, r.beaconIesLength, parts.ies.valid);
  if (r.macCount != 0 || r.firstMacIndex != 0) {
    pools += Range("mac", r.firstMacIndex, r.macCount, parts.macs_valid);
  }
  fprintf(out, "%s\n", pools.c_str());
  for (size_t i = 0; i < parts.mac_count; ++i) {
    fprintf(out, "    address %s\n",
            teskclient::FormatMacAddress(teskclient::FromWire(parts.macs[i])).c_str());
  }
}

void PrintRecords(FILE* out, const teskclient::ScanRecords& results) {
  fprintf(out, "%-17s  %-32s  %4s  %-24s  %s\n", "BSSID", "SSID", "CH", "SECURITY", "VENDOR OUIS");
  for (const WifiScanMeasurement& record : results.records) PrintRecord(out, results, record);
  if (results.dropped_bytes != 0) {
    fprintf(out, "(%zu trailing bytes of partial records ignored)\n", results.dropped_bytes);
  }
}

}  // namespace

void PrintDiscoveryTable(FILE* out, const teskclient::DiscoveryResults& results) {
  fprintf(out, "scanStatus %d  response_value %" PRIu64 "  response_word %u  %zu records\n",
          results.header.scanStatus, results.header.response_value, results.header.response_word,
          results.records.size());
  PrintRecords(out, results);
}

void PrintRangingTable(FILE* out, const teskclient::RangingResults& results) {
  fprintf(out, "scanStatus %u  %zu records  %zu addresses\n", results.scanStatus,
          results.records.size(), results.macs.size());
  PrintRecords(out, results);
}
