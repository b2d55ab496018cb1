#include "scan/marshal.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "ky_loc_fw/vela_measurement.h"
#include "scan/vendor_oui.h"

namespace {

using ky_loc_fw::VELAFullBeaconScanMeasurement;
using ky_loc_fw::VELAInfoElement;
using ky_loc_fw::VELAMeasurementDetail;
using ky_loc_fw::VELARangingScanMeasurement;
using ky_loc_fw::VELAScanMeasurement;

constexpr uint8_t kVendorSpecificId = 221;
// Shorter elements of ours are left as they came; kept on purpose, not to be relaxed.
constexpr uint8_t kExtendedMinLength = 25;
// The extended length must still fit its byte.
constexpr uint8_t kUnextendableLength = 255;

// Records start as copies of these rather than memset: compilers make a
// string instruction of a memset this long, slow to start for so little.
constexpr WifiScanMeasurement kZeroRecord{};
constexpr WifiMeasurementInfo kZeroInfo{};
// Details of a measurement fetched ahead of their use.
constexpr uint32_t kFetchedDetails = 4;

// Identifier, length byte, data and, when given, one trailing byte: one
// element, written at `at`. Returns the byte after it.
signed char* PutElement(signed char* at, const VELAInfoElement& element, uint8_t length_byte,
                        const uint8_t* trailing) {
  const uint8_t len = element.len;
  at[0] = static_cast<signed char>(element.id);
  at[1] = static_cast<signed char>(length_byte);
  // A call of the C library's copy: compilers make a string instruction of
  // an inline copy whose length is known only now, slow to start for so
  // little.
  at = std::copy_n(reinterpret_cast<const signed char*>(element.data), len, at + 2);
  if (trailing != nullptr) *at++ = static_cast<signed char>(*trailing);
  return at;
}

// The same element pushed byte by byte, each byte failing as a push does.
void PushElement(CommonResponseData& out, const VELAInfoElement& element, uint8_t length_byte,
                 const uint8_t* trailing) {
  out.bytes.push_back(static_cast<signed char>(element.id));
  out.bytes.push_back(static_cast<signed char>(length_byte));
  out.bytes.append(reinterpret_cast<const signed char*>(element.data), element.len);
  if (trailing != nullptr) out.bytes.push_back(static_cast<signed char>(*trailing));
}

// The element written at `at`, in a block already held, returning the byte
// after it; with no block (at null), pushed instead, returning null.
signed char* PlaceElement(CommonResponseData& out, signed char* at, const VELAInfoElement& element,
                          uint8_t length_byte, const uint8_t* trailing) {
  if (at != nullptr) return PutElement(at, element, length_byte, trailing);
  PushElement(out, element, length_byte, trailing);
  return nullptr;
}

// The element appended to the byte pool.
void AppendElement(CommonResponseData& out, const VELAInfoElement& element, uint8_t length_byte,
                   const uint8_t* trailing) {
  signed char* at = out.bytes.extend(element.len + (trailing == nullptr ? 2u : 3u));
  PlaceElement(out, at, element, length_byte, trailing);
}

// What element A or B takes in the byte pool; 0 when absent.
uint32_t OptionalSize(const VELAInfoElement* element) {
  return element == nullptr ? 0 : element->len + 2u;
}

// Element A or B of a measurement: the element as it stood in the frame.
void AppendOptionalElement(CommonResponseData& out, const VELAInfoElement* element,
                           uint32_t* offset, uint32_t* length) {
  if (element == nullptr) return;
  *offset = out.bytes.getCount();
  *length = element->len + 2u;
  AppendElement(out, *element, element->len, nullptr);
}

// The detail's record, filled in place.
void FillInfo(WifiMeasurementInfo& info, const VELAMeasurementDetail* d) {
  std::memcpy(&info, &kZeroInfo, sizeof info);
  // The library never stores a null detail; if one came, its record stays zero
  // so that the counts and indexes of the scan record still hold.
  if (d == nullptr) return;
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
}

bool IsExtendedVendorElement(const VELAInfoElement& element) {
  return element.id == kVendorSpecificId && element.len >= kExtendedMinLength &&
         element.len != kUnextendableLength &&
         std::memcmp(element.data, kVendorOui, sizeof kVendorOui) == 0;
}

// What MarshalFullBeacon appends for one of the beacon's elements.
uint32_t ElementSize(const VELAInfoElement& element) {
  return element.len + 2u + (IsExtendedVendorElement(element) ? 1u : 0u);
}

// A measurement's details, bytes and elements lie apart in the heap, each a
// wait of its own when first read: fetching starts here, to overlap with
// filling the record.
void FetchBlocks(const VELAScanMeasurement& m) {
  __builtin_prefetch(m.details.getData());
  __builtin_prefetch(m.rawBytes.getData());
  __builtin_prefetch(m.elementA);
  __builtin_prefetch(m.elementB);
}

// The details themselves, once the block that lists them is in.
void FetchDetails(const VELAScanMeasurement& m) {
  const uint32_t n = std::min(m.details.getCount(), kFetchedDetails);
  for (uint32_t i = 0; i < n; ++i) __builtin_prefetch(m.details.getData()[i]);
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
  FetchBlocks(*m);

  WifiScanMeasurement rec;
  std::memcpy(&rec, &kZeroRecord, sizeof rec);
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

  FetchDetails(*m);
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
  const uint16_t info_count = static_cast<uint16_t>(m->details.getCount());
  rec.infoCount = info_count;
  // Filled in place, not built aside and copied in; one by one only when
  // their block cannot be had.
  WifiMeasurementInfo* infos = out.infos.extend(info_count);
  // Every index below the count: the checked access would pass each detail.
  VELAMeasurementDetail* const* details = m->details.getData();
  for (uint32_t i = 0; i < info_count; ++i) {
    if (infos != nullptr) {
      FillInfo(infos[i], details[i]);
    } else {
      WifiMeasurementInfo info;
      FillInfo(info, details[i]);
      out.infos.push_back(info);
    }
  }

  // The bytes, then elements A and B as they stood in the frame, in one
  // block; piece by piece, each failing as it would alone, when it cannot
  // be had. Every index below the count: the checked access would pass each
  // byte.
  const VELAInfoElement* a = m->elementA;
  const VELAInfoElement* b = m->elementB;
  rec.bytesOffset = out.bytes.getCount();
  rec.bytesLength = m->rawBytes.getCount();
  signed char* at = out.bytes.extend(uint64_t{rec.bytesLength} + OptionalSize(a) + OptionalSize(b));
  if (at == nullptr) {
    out.bytes.append(m->rawBytes.getData(), rec.bytesLength);
    AppendOptionalElement(out, a, &rec.elementAOffset, &rec.elementALength);
    AppendOptionalElement(out, b, &rec.elementBOffset, &rec.elementBLength);
  } else {
    at = std::copy_n(m->rawBytes.getData(), rec.bytesLength, at);
    const uint32_t a_offset = rec.bytesOffset + rec.bytesLength;
    if (a != nullptr) {
      rec.elementAOffset = a_offset;
      rec.elementALength = OptionalSize(a);
      at = PutElement(at, *a, a->len, nullptr);
    }
    if (b != nullptr) {
      rec.elementBOffset = a_offset + OptionalSize(a);
      rec.elementBLength = OptionalSize(b);
      PutElement(at, *b, b->len, nullptr);
    }
  }

  out.measurements.push_back(rec);
}

void MarshalFullBeacon(CommonResponseData& out, const VELAFullBeaconScanMeasurement* m) {
  if (m == nullptr) return;

  __builtin_prefetch(m->informationElements.getData());  // in by the time it is read
  const uint32_t start = out.measurements.getCount();
  MarshalCommon(out, m);
  WifiScanMeasurement* rec = AppendedRecord(out, start);

  // The elements' sizes first, so that one block takes them all.
  const uint32_t offset = out.bytes.getCount();
  const uint32_t n = m->informationElements.getCount();
  // Every index below the count: the checked access would pass each entry.
  VELAInfoElement* const* elements = m->informationElements.getData();
  uint64_t total = 0;
  for (uint32_t k = 0; k < n; ++k) {
    const VELAInfoElement* element = elements[k];
    if (element != nullptr) total += ElementSize(*element);
  }
  signed char* at = out.bytes.extend(total);
  const uint8_t beacon_byte = static_cast<uint8_t>(m->beaconTsf & 0xFF);
  for (uint32_t k = 0; k < n; ++k) {
    const VELAInfoElement* element = elements[k];
    if (element == nullptr) continue;
    const bool extended = IsExtendedVendorElement(*element);
    const auto length_byte = static_cast<uint8_t>(element->len + (extended ? 1 : 0));
    const uint8_t* trailing = extended ? &beacon_byte : nullptr;
    at = PlaceElement(out, at, *element, length_byte, trailing);
  }

  if (rec != nullptr) {
    rec->beaconIesOffset = offset;
    // Cut to 32 bits, as a running sum of the field's width would be.
    rec->beaconIesLength = static_cast<uint32_t>(total);
  }
}

void MarshalRanging(RangingData& out, const VELARangingScanMeasurement* m) {
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
