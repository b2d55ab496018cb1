#include "tests/vela/recording_listener.h"

#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_testing {

namespace {

SeenMeasurement Summarise(const VELAScanMeasurement& m) {
  SeenMeasurement s;
  s.type = m.getMeasurementType();
  s.bssid = Mac48(m.bssid);
  s.ssidValid = m.ssid.isSSIDValid();
  s.ssid = vela_test::SsidBytes(m.ssid);
  s.frequency = m.value32_2;
  s.distanceMm = m.value32_4;
  s.channel = m.value8_8;
  s.rssi = static_cast<int32_t>(m.value32_5);
  s.detailCount = m.details.getCount();
  s.rawByteCount = m.rawBytes.getCount();
  s.hasElementA = m.elementA != nullptr;
  s.hasElementB = m.elementB != nullptr;
  if (s.type == VELAScanMeasurement::MEASUREMENT_TYPE_RANGING) {
    const auto& r = static_cast<const VELARangingScanMeasurement&>(m);
    for (uint32_t i = 0; i < r.macList.getCount(); ++i) s.macList.push_back(Mac48(r.macList[i]));
  }
  if (s.type == VELAScanMeasurement::MEASUREMENT_TYPE_FULL_BEACON) {
    const auto& b = static_cast<const VELAFullBeaconScanMeasurement&>(m);
    for (uint32_t i = 0; i < b.informationElements.getCount(); ++i) {
      const VELAInfoElement* e = b.informationElements[i];
      s.elements.emplace_back(e->id, std::vector<uint8_t>(e->data, e->data + e->len));
    }
  }
  return s;
}

void SummariseAll(const ky_loc_fw::vector<VELAScanMeasurement*>& list, SeenResponse* out) {
  for (uint32_t i = 0; i < list.getCount(); ++i) {
    if (list[i] != nullptr) out->measurements.push_back(Summarise(*list[i]));
  }
}

}  // namespace

uint64_t Mac48(const VELAMacAddress& mac) {
  return static_cast<uint64_t>(mac.getHi24()) << 24 | mac.getLo24();
}

void RecordingListener::responseReceived(VELAResponse* response) {
  SeenResponse s;
  s.thread = std::this_thread::get_id();
  if (response == nullptr) {
    s.isNull = true;
  } else {
    s.type = response->getResponseType();
    s.id = response->getRequestId();
    if (auto* d = dynamic_cast<VELADiscoveryScanResponse*>(response)) {
      s.status = d->scanStatus;
      s.source = d->scanSource;
      SummariseAll(d->measurements, &s);
    } else if (auto* r = dynamic_cast<VELARangingScanResponse*>(response)) {
      s.status = r->scanStatus;
      SummariseAll(r->measurements, &s);
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  seen_.push_back(std::move(s));
  arrived_.notify_all();
}

std::vector<SeenResponse> RecordingListener::WaitFor(size_t count) {
  std::unique_lock<std::mutex> lock(mutex_);
  arrived_.wait(lock, [&] { return seen_.size() >= count; });
  return seen_;
}

std::vector<SeenResponse> RecordingListener::Seen() {
  std::lock_guard<std::mutex> lock(mutex_);
  return seen_;
}

}  // namespace vela_testing
}  // namespace ky_loc_fw
