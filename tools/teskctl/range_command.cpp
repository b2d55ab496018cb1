// teskctl range: one single or periodic ranging scan against given targets.
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

void PrintRangeUsage(FILE* out) {
  fprintf(out,
          "usage: teskctl [GLOBAL OPTIONS] range [--periodic] [--ts N] [--target] TARGET...\n"
          "Runs one ranging scan and prints the measurements.\n"
          "\n"
          "  [--target] TARGET\n"
          "                  a target station (repeatable): its MAC address, then\n"
          "                  optional comma-separated KEY=VALUE node values:\n"
          "                    peer=MAC        second address of the node\n"
          "                    v1, v2, v3      nodeValue1..3: primary, centre 0, centre 1 MHz\n"
          "                    v4              nodeValue4: burst duration\n"
          "                    e1              nodeEnum1: 1-5 (the daemon uses 0 for others)\n"
          "                    e2              nodeEnum2: 0-3 (the daemon uses 1 for others)\n"
          "                    e3              nodeEnum3: 1-4 (the daemon uses 0 for others)\n"
          "                    e4              nodeEnum4: 1-3 (the daemon uses 0 for others)\n"
          "                    b1, b2          nodeByte1..2 (8-bit)\n"
          "                    p1, p2, pb      periodicValue1..2, periodicByte (--periodic)\n"
          "  --periodic      a periodic ranging scan (64-byte targets) instead of a single one\n"
          "  --ts N          the request's time value, signed 64-bit (default 0)\n"
          "  -h, --help      this text\n"
          "\n"
          "Example: teskctl range 00:0d:58:ef:88:09,v1=2437,e1=1 --ts 100\n");
}

int Usage(const char* what, const std::string& detail) {
  fprintf(stderr, "teskctl range: %s%s\nTry 'teskctl range --help'.\n", what, detail.c_str());
  return kExitUsage;
}

bool SetValue(teskclient::RangingTargetPlan* target, const std::string& key,
              const std::string& text) {
  if (key == "peer") return teskclient::ParseMacAddress(text, &target->peer);
  struct Field {
    const char* key;
    uint32_t* field32;
    uint8_t* field8;
  };
  RangingTarget& v = target->values;
  const Field fields[] = {
      {"v1", &v.nodeValue1, nullptr},
      {"v2", &v.nodeValue2, nullptr},
      {"v3", &v.nodeValue3, nullptr},
      {"v4", &v.nodeValue4, nullptr},
      {"e1", &v.nodeEnum1, nullptr},
      {"e2", &v.nodeEnum2, nullptr},
      {"e3", &v.nodeEnum3, nullptr},
      {"e4", &v.nodeEnum4, nullptr},
      {"b1", nullptr, &v.nodeByte1},
      {"b2", nullptr, &v.nodeByte2},
      {"p1", &target->periodicValue1, nullptr},
      {"p2", &target->periodicValue2, nullptr},
      {"pb", nullptr, &target->periodicByte},
  };
  for (const Field& field : fields) {
    if (key != field.key) continue;
    uint64_t value;
    if (!ParseUint(text, field.field8 != nullptr ? 0xFF : UINT32_MAX, &value)) return false;
    if (field.field8 != nullptr) {
      *field.field8 = static_cast<uint8_t>(value);
    } else {
      *field.field32 = static_cast<uint32_t>(value);
    }
    return true;
  }
  return false;
}

bool ParseTarget(const std::string& text, teskclient::RangingTargetPlan* target) {
  const size_t comma = text.find(',');
  if (!teskclient::ParseMacAddress(text.substr(0, comma), &target->mac)) return false;
  size_t at = comma;
  while (at != std::string::npos) {
    const size_t next = text.find(',', at + 1);
    const std::string item = text.substr(at + 1, next == std::string::npos ? next : next - at - 1);
    const size_t equals = item.find('=');
    if (equals == std::string::npos ||
        !SetValue(target, item.substr(0, equals), item.substr(equals + 1))) {
      return false;
    }
    at = next;
  }
  return true;
}

}  // namespace

int RunRangeCommand(const GlobalOptions& options, int argc, char** argv) {
  teskclient::RangingScanPlan plan;
  Arguments args(argc, argv, 1);
  while (!args.Done()) {
    std::string value;
    bool missing = false;
    if (args.Flag("-h") || args.Flag("--help")) {
      PrintRangeUsage(stdout);
      return kExitOk;
    } else if (args.Flag("--periodic")) {
      plan.periodic = true;
    } else if (args.Option("--ts", &value, &missing)) {
      if (missing || !ParseInt64(value, &plan.ts)) return Usage("bad --ts: ", value);
    } else if (args.Option("--target", &value, &missing)) {
      teskclient::RangingTargetPlan target;
      if (missing || !ParseTarget(value, &target)) return Usage("bad --target: ", value);
      plan.targets.push_back(target);
    } else if (args.Current()[0] != '-') {
      // A bare target is the same as --target TARGET.
      teskclient::RangingTargetPlan target;
      value = args.Current();
      if (!ParseTarget(value, &target)) return Usage("bad target: ", value);
      plan.targets.push_back(target);
      args.Skip();
    } else {
      return Usage("unknown option ", args.Current());
    }
  }

  const teskclient::EncodedRangingScan request = teskclient::EncodeRangingScan(plan);
  using Slot = DeliverySlot<teskclient::RangingResults>;
  auto slot = std::make_shared<Slot>();
  const int status = RunScan(
      options, kInterfaceRangingScan,
      [&request](Object service, Object callback, Object* handle) {
        return teskclient::StartRangingScan(service, request, callback, handle);
      },
      Slot::Taker(slot, teskclient::DecodeRangingDelivery));
  if (status != kExitOk) return status;

  std::lock_guard<std::mutex> lock(slot->mutex);
  const teskclient::RangingResults& results = slot->results;
  if (options.json) {
    PrintRangingJson(stdout, results);
  } else {
    PrintRangingTable(stdout, results);
  }
  fflush(stdout);
  if (results.scanStatus == static_cast<uint32_t>(kScanStatusBadResponse)) {
    fprintf(stderr, "teskctl: the daemon could not use the location service's answer (status 5)\n");
    return kExitBadResponse;
  }
  return kExitOk;
}
