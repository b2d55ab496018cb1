#include "scan/marshal.h"

#include <cstdint>
#include <cstring>

#include "ky_loc_fw/vela_measurement.h"
#include "scan/vendor_oui.h"

namespace {

using ky_loc_fw::VELAInfoElement;
using ky_loc_fw::VELAMeasurementDetail;
using ky_loc_fw::VELAScanMeasurement;

constexpr uint8_t kVendorSpecificId = 221;
// Shorter elements of ours are left as they came; kept on purpose, not to be relaxed.
constexpr uint8_t kExtendedMinLength = 25;
// The extended length must still fit its byte.
constexpr uint8_t kUnextendableLength = 255;

// Identifier, length byte, data and, when given, one trailing byte: one
// element, appended to the byte pool. Returns its size.
uint32_t AppendElement(CommonResponseData& out, const VELAInfoElement& element, uint8_t length_byte,
                       const uint8_t* trailing) {
  out.bytes.push_back(static_cast<signed char>(element.id));
  out.bytes.push_back(static_cast<signed char>(length_byte));
  out.bytes.append(reinterpret_cast<const signed char*>(element.data), element.len);
  if (trailing == nullptr) return element.len + 2u;
  out.bytes.push_back(static_cast<signed char>(*trailing));
  return element.len + 3u;
}

// Element A or B of a measurement: the element as it stood in the frame.
void AppendOptionalElement(CommonResponseData& out, const VELAInfoElement* element,
                           uint32_t* offset, uint32_t* length) {
  if (element == nullptr) return;
  *offset = out.bytes.getCount();
  *length = element->len + 2u;
  AppendElement(out, *element, element->len, nullptr);
}

WifiMeasurementInfo ToInfo(const VELAMeasurementDetail* d) {
  WifiMeasurementInfo info;
  std::memset(&info, 0, sizeof info);
  // The library never stores a null detail; if one came, its record stays zero
  // so that the counts and indexes of the scan record still hold.
  if (d == nullptr) return info;
  info.infoValue32_1 = d->infoValue32_1;
  info.infoValue32_2 = d->infoValue32_2;
  info.infoValue32_3 = d->infoValue32_3;
  info.infoValue32_4 = d->infoValue32_4;
  std::memcpy(info.infoBlock, d->infoBlock, sizeof info.infoBlock);
  info.infoValue16_1 = d->infoValue16_1;
  info.infoValue16_2 = static_cast<uint16_t>(d->infoValue16_2);  // cut to 16 bits on purpose
  info.infoValue32_5 = d->infoValue32_5;
  info.infoValue32_6 = d->infoValue32_6;
  info.infoValue32_7 = d->infoValue32_7;
  info.infoValue8_1 = d->infoValue8_1;
  info.infoValue8_2 = d->infoValue8_2;
  info.infoValue8_3 = d->infoValue8_3;
  info.infoValue8_4 = d->infoValue8_4;
  info.infoValue32_8 = d->infoValue32_8;
  info.infoValue8_5 = d->infoValue8_5;
  info.infoValue8_6 = d->infoValue8_6;
  info.infoValue8_7 = d->infoValue8_7;
  info.infoValue8_8 = d->infoValue8_8;
  return info;
}

bool IsExtendedVendorElement(const VELAInfoElement& element) {
  return element.id == kVendorSpecificId && element.len >= kExtendedMinLength &&
         element.len != kUnextendableLength &&
         std::memcmp(element.data, kVendorOui, sizeof kVendorOui) == 0;
}

// The record MarshalCommon appended at `start`. After a failed append this
// is record 0, kept on purpose; with no record at all there is nothing to
// fix up and the result is null.
WifiScanMeasurement* AppendedRecord(CommonResponseData& out, uint32_t start) {
  if (out.measurements.getCount() == 0) return nullptr;
  return &out.measurements[start];
}

}  // namespace

void MarshalCommon(CommonResponseData& out, const VELAScanMeasurement* m) {
  if (m == nullptr) return;

  WifiScanMeasurement rec;
  std::memset(&rec, 0, sizeof rec);
  rec.bssidLo24 = m->bssid.getLo24();
  rec.bssidHi24 = m->bssid.getHi24();

  rec.ssidValid = m->ssid.isSSIDValid() & 1;
  if (rec.ssidValid != 0) {
    int len = 0;
    // Whatever getSSID wrote into the record's field stays, even on failure.
    if (m->ssid.getSSID(rec.ssid, &len) == 0) {
      rec.ssidPresent = 1;
      rec.ssidLength = static_cast<uint16_t>(len);
    }
  }

  rec.value64 = m->value64;
  rec.value32_1 = m->value32_1;
  rec.value32_2 = m->value32_2;
  rec.value32_3 = m->value32_3;
  rec.value32_4 = m->value32_4;
  rec.value32_5 = m->value32_5;
  rec.value32_6 = m->value32_6;
  rec.value32_7 = m->value32_7;
  rec.value32_8 = m->value32_8;
  rec.value32_9 = m->value32_9;
  rec.value32_10 = m->value32_10;
  rec.value16_1 = m->value16_1;
  rec.value16_2 = m->value16_2;
  rec.value16_3 = m->value16_3;
  rec.value16_4 = m->value16_4;
  rec.value8_1 = m->value8_1;
  rec.value8_2 = m->value8_2;
  rec.value8_3 = m->value8_3;
  rec.value8_4 = m->value8_4;
  rec.value8_5 = m->value8_5;
  rec.value8_6 = m->value8_6;
  rec.value8_7 = m->value8_7;
  rec.value8_8 = m->value8_8;
  rec.value8_9 = m->value8_9;

  // Both cut to 16 bits on purpose: details beyond 65535 are dropped.
  rec.firstInfoIndex = static_cast<uint16_t>(out.infos.getCount());
  rec.infoCount = static_cast<uint16_t>(m->details.getCount());
  for (uint32_t i = 0; i < rec.infoCount; ++i) out.infos.push_back(ToInfo(m->details[i]));

  rec.bytesOffset = out.bytes.getCount();
  rec.bytesLength = m->rawBytes.getCount();
  // Every index below the count: the checked access would pass each byte.
  out.bytes.append(m->rawBytes.getData(), rec.bytesLength);

  AppendOptionalElement(out, m->elementA, &rec.elementAOffset, &rec.elementALength);
  AppendOptionalElement(out, m->elementB, &rec.elementBOffset, &rec.elementBLength);

  out.measurements.push_back(rec);
}

void MarshalFullBeacon(CommonResponseData& out, const ky_loc_fw::VELAFullBeaconScanMeasurement* m) {
  if (m == nullptr) return;

  const uint32_t start = out.measurements.getCount();
  MarshalCommon(out, m);
  WifiScanMeasurement* rec = AppendedRecord(out, start);

  const uint32_t offset = out.bytes.getCount();
  uint32_t total = 0;
  const uint32_t n = m->informationElements.getCount();
  for (uint32_t k = 0; k < n; ++k) {
    const VELAInfoElement* element = m->informationElements[k];
    if (element == nullptr) continue;
    if (IsExtendedVendorElement(*element)) {
      const uint8_t beacon_byte = static_cast<uint8_t>(m->beaconTsf & 0xFF);
      total += AppendElement(out, *element, static_cast<uint8_t>(element->len + 1), &beacon_byte);
    } else {
      total += AppendElement(out, *element, element->len, nullptr);
    }
  }

  if (rec != nullptr) {
    rec->beaconIesOffset = offset;
    rec->beaconIesLength = total;
  }
}

void MarshalRanging(RangingData& out, const ky_loc_fw::VELARangingScanMeasurement* m) {
  if (m == nullptr) return;

  const uint32_t start = out.measurements.getCount();
  MarshalCommon(out, m);
  WifiScanMeasurement* rec = AppendedRecord(out, start);

  const uint32_t first = out.macs.getCount();
  const uint32_t n = m->macList.getCount();
  for (uint32_t k = 0; k < n; ++k) {
    const ky_loc_fw::VELAMacAddress& mac = m->macList[k];
    out.macs.push_back(WifiMacAddress{mac.getLo24(), mac.getHi24()});
  }

  if (rec != nullptr) {
    rec->firstMacIndex = first;
    rec->macCount = n;  // the count read, not the number stored
  }
}
