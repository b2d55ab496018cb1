// Builds the input buffers of the discovery and ranging scan methods.
#ifndef TESK_CLIENT_TESKCLIENT_REQUEST_ENCODING_H_
#define TESK_CLIENT_TESKCLIENT_REQUEST_ENCODING_H_

#include <cstdint>
#include <string>
#include <vector>

#include <tesk/interfaces.h>
#include <tesk/scan_requests.h>

#include "teskclient/mac_address.h"

namespace teskclient {

using Bytes = std::vector<uint8_t>;

struct DiscoveryScanPlan {
  DiscoveryScanParams params{};
  std::vector<uint32_t> channels;  // empty: the band in params is scanned
  std::vector<Bytes> ssids;        // raw SSID bytes; longer than 32 is refused
  std::vector<MacAddress> bssids;
};

// The four input buffers in slot order.
struct EncodedDiscoveryScan {
  Bytes params;
  Bytes channels;
  Bytes ssids;
  Bytes bssids;
};

// False (and *error says why) when an SSID is longer than 32 bytes.
bool EncodeDiscoveryScan(const DiscoveryScanPlan& plan, EncodedDiscoveryScan* out,
                         std::string* error);

// A ranging target as the client describes it; the wire form splits the
// addresses and the periodic part is used only by periodic scans.
struct RangingTargetPlan {
  MacAddress mac{};
  MacAddress peer{};
  RangingTarget values{};  // everything but the two addresses
  uint32_t periodicValue1 = 0;
  uint32_t periodicValue2 = 0;
  uint8_t periodicByte = 0;
};

struct RangingScanPlan {
  bool periodic = false;
  int64_t ts = 0;
  std::vector<RangingTargetPlan> targets;
};

struct EncodedRangingScan {
  uint32_t op = kRangingOpSingle;
  Bytes targets;  // 52-byte or 64-byte records
  Bytes ts;       // 8 bytes
};

EncodedRangingScan EncodeRangingScan(const RangingScanPlan& plan);

}  // namespace teskclient

#endif  // TESK_CLIENT_TESKCLIENT_REQUEST_ENCODING_H_
