// Builds arbitrary measurements (details, raw bytes, elements A and B, beacon
// elements with null entries and own-OUI vendor elements, MAC lists, SSID
// states the library's checks would not let through) and marshals them into
// one response; every record must then point inside the pools. The input
// starts with a u16 length and that many bytes of a beacon's elements, which
// the first measurement carries, so that real beacons seed the corpus.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ky_loc_fw/log_capture.h"
#include "ky_loc_fw/vela_measurement.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scan/marshal.h"
#include "scan/vendor_oui.h"

namespace {

using ky_loc_fw::VELAInfoElement;
using ky_loc_fw::VELAScanMeasurement;

VELAInfoElement* MakeElement(FuzzedDataProvider& in) {
  if (in.ConsumeBool()) return nullptr;
  const uint8_t id = in.ConsumeBool() ? 221 : in.ConsumeIntegral<uint8_t>();
  std::vector<uint8_t> data = in.ConsumeBytes<uint8_t>(in.ConsumeIntegral<uint8_t>());
  if (data.size() >= 3 && in.ConsumeBool()) {
    for (int i = 0; i < 3; ++i) data[i] = kVendorOui[i];
  }
  return new VELAInfoElement(id, data.data(), static_cast<uint8_t>(data.size()));
}

// Elements as a beacon carries them: id, length, data; a cut one ends them.
void AddBeaconElements(const uint8_t* ies, size_t size,
                       ky_loc_fw::VELAFullBeaconScanMeasurement* m) {
  for (size_t at = 0; at + 2 <= size && at + 2 + ies[at + 1] <= size; at += 2 + ies[at + 1]) {
    m->informationElements.push_back(new VELAInfoElement(ies[at], ies + at + 2, ies[at + 1]));
  }
}

// Only what decides how a measurement is laid out is fuzzed; plain values
// are copied whatever they are.
void Fill(FuzzedDataProvider& in, VELAScanMeasurement* m) {
  uint8_t ssid[40] = {};
  in.ConsumeData(ssid, in.ConsumeIntegralInRange<size_t>(0, sizeof ssid));
  ky_loc_fw::vela_test::SsidAccess::Set(&m->ssid, ssid, in.ConsumeIntegralInRange<int>(-1, 40),
                                        in.ConsumeBool());
  for (int i = in.ConsumeIntegralInRange(0, 40); i > 0; --i) {
    m->details.push_back(new ky_loc_fw::VELAMeasurementDetail());
  }
  for (signed char c : in.ConsumeBytes<signed char>(in.ConsumeIntegralInRange(0, 300))) {
    m->rawBytes.push_back(c);
  }
  m->elementA = MakeElement(in);
  m->elementB = MakeElement(in);
}

void CheckRecords(const RangingData& out) {
  const uint64_t pool = out.bytes.getCount();
  for (uint32_t i = 0; i < out.measurements.getCount(); ++i) {
    const WifiScanMeasurement& r = out.measurements.getData()[i];
    if (r.firstInfoIndex + uint32_t{r.infoCount} > out.infos.getCount() ||
        r.bytesOffset + uint64_t{r.bytesLength} > pool ||
        r.elementAOffset + uint64_t{r.elementALength} > pool ||
        r.elementBOffset + uint64_t{r.elementBLength} > pool ||
        r.beaconIesOffset + uint64_t{r.beaconIesLength} > pool ||
        r.firstMacIndex + uint64_t{r.macCount} > out.macs.getCount() || r.ssidLength > 32 ||
        (r.ssidPresent != 0 && r.ssidValid != 1) || r.reserved0 != 0 || r.reserved1 != 0 ||
        r.reserved2 != 0) {
      __builtin_trap();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool quiet =
      (ky_loc_fw::log_set_sink([](void*, char, const char*, const char*) {}, nullptr, true), true);
  (void)quiet;

  if (size < 2) return 0;
  const size_t ies_size = std::min<size_t>(data[0] | data[1] << 8, size - 2);
  FuzzedDataProvider in(data + 2 + ies_size, size - 2 - ies_size);
  RangingData out;
  {
    ky_loc_fw::VELAFullBeaconScanMeasurement beacon;
    Fill(in, &beacon);
    AddBeaconElements(data + 2, ies_size, &beacon);
    MarshalFullBeacon(out, &beacon);
  }
  while (in.remaining_bytes() > 0 && out.measurements.getCount() < 64) {
    const int kind = in.ConsumeIntegralInRange(0, 3);
    if (kind == 0) {
      VELAScanMeasurement m;
      Fill(in, &m);
      MarshalCommon(out, &m);
    } else if (kind == 1) {
      ky_loc_fw::VELAFullBeaconScanMeasurement m;
      Fill(in, &m);
      for (int i = in.ConsumeIntegralInRange(0, 20); i > 0; --i) {
        m.informationElements.push_back(MakeElement(in));
      }
      MarshalFullBeacon(out, &m);
    } else if (kind == 2) {
      ky_loc_fw::VELARangingScanMeasurement m;
      Fill(in, &m);
      for (int i = in.ConsumeIntegralInRange(0, 20); i > 0; --i) m.macList.push_back({});
      MarshalRanging(out, &m);
    } else {
      MarshalFullBeacon(out, nullptr);
      MarshalRanging(out, nullptr);
    }
  }
  CheckRecords(out);
  return 0;
}
