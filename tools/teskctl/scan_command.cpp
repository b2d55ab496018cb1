// teskctl scan: one discovery scan, its results as a table or JSON lines.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "arguments.h"
#include "command.h"
#include "json_printer.h"
#include "scan_runner.h"
#include "table_printer.h"
#include "teskclient/request_encoding.h"
#include "teskclient/result_decoding.h"
#include "teskclient/session.h"

namespace {

void PrintScanUsage(FILE* out) {
  fprintf(out,
          "usage: teskctl [GLOBAL OPTIONS] scan [OPTIONS]\n"
          "Runs one discovery scan and prints every station reported.\n"
          "\n"
          "What to scan:\n"
          "  --mode MODE           fresh (default), cache (cache only), fallback (cache,\n"
          "                        else a fresh scan), or the raw mode number\n"
          "  --band N              band value when no channel is given: 0, 1 or 2 (default 2)\n"
          "  --channels LIST       comma-separated channel values; overrides --band\n"
          "  --ssid NAME           report only this SSID (repeatable)\n"
          "  --ssid-hex HEX        the same for an SSID given as hex bytes\n"
          "  --bssid MAC           report only this BSSID, aa:bb:cc:dd:ee:ff (repeatable)\n"
          "Remaining request fields (passed to the location service unchanged):\n"
          "  --scan-timeout N      timeout field, signed 64-bit (default 0)\n"
          "  --scan-type N         0, or anything else for the second scan type (default 0)\n"
          "  --age-filter N        age filter (default 0)\n"
          "  --fallback-param N    cache-fallback parameter (default 0)\n"
          "  --cache-flag          set the cache flag\n"
          "  --scan-flag           set the scan flag\n"
          "  -h, --help            this text\n"
          "\n"
          "Output: a table (BSSID, SSID, channel, security and vendor OUIs from the\n"
          "information elements, then the record's raw values), or with --json one\n"
          "object for the response followed by one object per record.\n"
          "Example: teskctl scan --mode fallback --channels 1,6,11 --ssid home\n");
}

int Usage(const char* what, const std::string& detail) {
  fprintf(stderr, "teskctl scan: %s%s\nTry 'teskctl scan --help'.\n", what, detail.c_str());
  return kExitUsage;
}

bool ParseMode(const std::string& text, uint32_t* mode) {
  if (text == "fresh") {
    *mode = kDiscoveryModeFresh;
  } else if (text == "cache" || text == "cache-only") {
    *mode = kDiscoveryModeCacheOnly;
  } else if (text == "fallback" || text == "cache-fallback") {
    *mode = kDiscoveryModeCacheFallback;
  } else {
    uint64_t value;
    if (!ParseUint(text, UINT32_MAX, &value)) return false;
    *mode = static_cast<uint32_t>(value);
  }
  return true;
}

bool ParseChannels(const std::string& text, std::vector<uint32_t>* channels) {
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = text.find(',', start);
    const std::string item = text.substr(start, comma == std::string::npos ? comma : comma - start);
    uint64_t value;
    if (!ParseUint(item, UINT32_MAX, &value)) return false;
    channels->push_back(static_cast<uint32_t>(value));
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return true;
}

bool ParseHex(const std::string& text, teskclient::Bytes* bytes) {
  if (text.size() % 2 != 0) return false;
  for (size_t i = 0; i < text.size(); i += 2) {
    uint64_t value;
    if (!isxdigit(static_cast<unsigned char>(text[i])) ||
        !ParseUint("0x" + text.substr(i, 2), 0xFF, &value)) {
      return false;
    }
    bytes->push_back(static_cast<uint8_t>(value));
  }
  return true;
}

}  // namespace

int RunScanCommand(const GlobalOptions& options, int argc, char** argv) {
  teskclient::DiscoveryScanPlan plan;
  plan.params.band = 2;
  Arguments args(argc, argv, 1);
  while (!args.Done()) {
    std::string value;
    bool missing = false;
    uint64_t number = 0;
    if (args.Flag("-h") || args.Flag("--help")) {
      PrintScanUsage(stdout);
      return kExitOk;
    } else if (args.Flag("--cache-flag")) {
      plan.params.cache_flag = 1;
    } else if (args.Flag("--scan-flag")) {
      plan.params.scan_flag = 1;
    } else if (args.Option("--mode", &value, &missing)) {
      if (missing || !ParseMode(value, &plan.params.mode)) return Usage("bad --mode: ", value);
    } else if (args.Option("--band", &value, &missing)) {
      if (missing || !ParseUint(value, UINT32_MAX, &number)) return Usage("bad --band: ", value);
      plan.params.band = static_cast<uint32_t>(number);
    } else if (args.Option("--channels", &value, &missing)) {
      if (missing || !ParseChannels(value, &plan.channels)) {
        return Usage("bad --channels: ", value);
      }
    } else if (args.Option("--ssid", &value, &missing)) {
      if (missing || value.size() > 32) return Usage("bad --ssid (1 to 32 bytes): ", value);
      plan.ssids.emplace_back(value.begin(), value.end());
    } else if (args.Option("--ssid-hex", &value, &missing)) {
      teskclient::Bytes ssid;
      if (missing || !ParseHex(value, &ssid) || ssid.size() > 32) {
        return Usage("bad --ssid-hex (up to 32 bytes as hex): ", value);
      }
      plan.ssids.push_back(ssid);
    } else if (args.Option("--bssid", &value, &missing)) {
      teskclient::MacAddress mac;
      if (missing || !teskclient::ParseMacAddress(value, &mac)) {
        return Usage("bad --bssid: ", value);
      }
      plan.bssids.push_back(mac);
    } else if (args.Option("--scan-timeout", &value, &missing)) {
      if (missing || !ParseInt64(value, &plan.params.timeout)) {
        return Usage("bad --scan-timeout: ", value);
      }
    } else if (args.Option("--scan-type", &value, &missing)) {
      if (missing || !ParseUint(value, UINT32_MAX, &number)) {
        return Usage("bad --scan-type: ", value);
      }
      plan.params.scan_type = static_cast<uint32_t>(number);
    } else if (args.Option("--age-filter", &value, &missing)) {
      if (missing || !ParseUint(value, UINT32_MAX, &number)) {
        return Usage("bad --age-filter: ", value);
      }
      plan.params.age_filter = static_cast<uint32_t>(number);
    } else if (args.Option("--fallback-param", &value, &missing)) {
      if (missing || !ParseUint(value, UINT32_MAX, &number)) {
        return Usage("bad --fallback-param: ", value);
      }
      plan.params.fallback_param = static_cast<uint32_t>(number);
    } else {
      return Usage("unknown option ", args.Current());
    }
  }

  teskclient::EncodedDiscoveryScan request;
  std::string error;
  if (!teskclient::EncodeDiscoveryScan(plan, &request, &error)) return Usage(error.c_str(), "");

  using Slot = DeliverySlot<teskclient::DiscoveryResults>;
  auto slot = std::make_shared<Slot>();
  const int status = RunScan(
      options, kInterfaceDiscoveryScan,
      [&request](Object service, Object callback, Object* handle) {
        return teskclient::StartDiscoveryScan(service, request, callback, handle);
      },
      Slot::Taker(slot, teskclient::DecodeDiscoveryDelivery));
  if (status != kExitOk) return status;

  std::lock_guard<std::mutex> lock(slot->mutex);
  const teskclient::DiscoveryResults& results = slot->results;
  if (options.json) {
    PrintDiscoveryJson(stdout, results);
  } else {
    PrintDiscoveryTable(stdout, results);
  }
  fflush(stdout);
  if (results.header.scanStatus == kScanStatusBadResponse) {
    fprintf(stderr, "teskctl: the daemon could not use the location service's answer (status 5)\n");
    return kExitBadResponse;
  }
  return kExitOk;
}
