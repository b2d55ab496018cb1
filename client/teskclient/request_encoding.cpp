#include "teskclient/request_encoding.h"

#include <cstring>

namespace teskclient {
namespace {

template <typename T>
void Append(Bytes* out, const T& record) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&record);
  out->insert(out->end(), bytes, bytes + sizeof record);
}

RangingTarget NodeRecord(const RangingTargetPlan& plan) {
  RangingTarget record = plan.values;
  const WifiMacAddress mac = ToWire(plan.mac);
  const WifiMacAddress peer = ToWire(plan.peer);
  record.macLo24 = mac.lo24;
  record.macHi24 = mac.hi24;
  record.peerLo24 = peer.lo24;
  record.peerHi24 = peer.hi24;
  memset(record.padding, 0, sizeof record.padding);
  return record;
}

}  // namespace

bool EncodeDiscoveryScan(const DiscoveryScanPlan& plan, EncodedDiscoveryScan* out,
                         std::string* error) {
  EncodedDiscoveryScan encoded;
  DiscoveryScanParams params = plan.params;
  memset(params.reserved, 0, sizeof params.reserved);
  Append(&encoded.params, params);
  for (uint32_t channel : plan.channels) Append(&encoded.channels, channel);
  for (const Bytes& ssid : plan.ssids) {
    WifiSsid record{};
    if (ssid.size() > sizeof record.ssid) {
      *error = "SSID longer than 32 bytes";
      return false;
    }
    record.length = static_cast<uint16_t>(ssid.size());
    if (!ssid.empty()) memcpy(record.ssid, ssid.data(), ssid.size());
    Append(&encoded.ssids, record);
  }
  for (const MacAddress& bssid : plan.bssids) Append(&encoded.bssids, ToWire(bssid));
  *out = std::move(encoded);
  return true;
}

EncodedRangingScan EncodeRangingScan(const RangingScanPlan& plan) {
  EncodedRangingScan encoded;
  encoded.op = plan.periodic ? kRangingOpPeriodic : kRangingOpSingle;
  for (const RangingTargetPlan& target : plan.targets) {
    if (plan.periodic) {
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
  const RangingTimeValue ts = plan.ts;
  Append(&encoded.ts, ts);
  return encoded;
}

}  // namespace teskclient
