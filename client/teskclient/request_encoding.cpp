#include "teskclient/request_encoding.h"

#include <cstring>

namespace teskclient {
namespace {

template <typename T>
void Append(Bytes* out, const T& record) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
  out->insert(out->end(), bytes, bytes + sizeof record);
}

RangingTarget NodeRecord(const RangingTargetSpec& spec) {
  RangingTarget record = spec.values;
  const WifiMacAddress mac = ToWire(spec.mac);
  const WifiMacAddress peer = ToWire(spec.peer);
  record.macLo24 = mac.lo24;
  record.macHi24 = mac.hi24;
  record.peerLo24 = peer.lo24;
  record.peerHi24 = peer.hi24;
  memset(record.padding, 0, sizeof record.padding);
  return record;
}

}  // namespace

bool EncodeDiscoveryScan(const DiscoveryScanSpec& spec, EncodedDiscoveryScan* out,
                         std::string* error) {
  EncodedDiscoveryScan encoded;
  DiscoveryScanParams params = spec.params;
  memset(params.reserved, 0, sizeof params.reserved);
  Append(&encoded.params, params);
  for (uint32_t channel : spec.channels) Append(&encoded.channels, channel);
  for (const Bytes& ssid : spec.ssids) {
    WifiSsid record{};
    if (ssid.size() > sizeof record.ssid) {
      *error = "SSID longer than 32 bytes";
      return false;
    }
    record.length = static_cast<uint16_t>(ssid.size());
    if (!ssid.empty()) memcpy(record.ssid, ssid.data(), ssid.size());
    Append(&encoded.ssids, record);
  }
  for (const MacAddress& bssid : spec.bssids) Append(&encoded.bssids, ToWire(bssid));
  *out = std::move(encoded);
  return true;
}

EncodedRangingScan EncodeRangingScan(const RangingScanSpec& spec) {
  EncodedRangingScan encoded;
  encoded.op = spec.periodic ? kRangingOpPeriodic : kRangingOpSingle;
  for (const RangingTargetSpec& target : spec.targets) {
    if (spec.periodic) {
      PeriodicRangingTarget record{};
      record.node = NodeRecord(target);
      record.periodicValue1 = target.periodicValue1;
      record.periodicValue2 = target.periodicValue2;
      record.periodicByte = target.periodicByte;
      Append(&encoded.targets, record);
    } else {
      Append(&encoded.targets, NodeRecord(target));
    }
  }
  const RangingTimeValue ts = spec.ts;
  Append(&encoded.ts, ts);
  return encoded;
}

}  // namespace teskclient
