#include "teskclient/result_decoding.h"

#include <cstring>

#include <tesk/interfaces.h>

namespace teskclient {
namespace {

// Copies whole records out of a delivered buffer; the buffer may be
// unaligned, so records are copied bytewise.
template <typename T>
void CopyRecords(const ObjectBuf& buf, std::vector<T>* out, size_t* dropped) {
  out->clear();
  if (buf.ptr == nullptr || buf.size == 0) return;
  const uint64_t n = buf.size / sizeof(T);
  *dropped += static_cast<size_t>(buf.size % sizeof(T));
  out->resize(static_cast<size_t>(n));
  if (n != 0) memcpy(out->data(), buf.ptr, static_cast<size_t>(n) * sizeof(T));
}

void CopyCommon(const ObjectArg* args, ScanRecords* out) {
  out->dropped_bytes = 0;
  CopyRecords(args[1].b, &out->records, &out->dropped_bytes);
  CopyRecords(args[2].b, &out->infos, &out->dropped_bytes);
  const ObjectBuf& pool = args[3].b;
  out->pool.clear();
  if (pool.ptr != nullptr && pool.size != 0) {
    const auto* bytes = static_cast<const uint8_t*>(pool.ptr);
    out->pool.assign(bytes, bytes + pool.size);
  }
}

template <typename T>
bool CheckedRange(const std::vector<T>& pool, uint64_t first, uint64_t count, const T** data,
                  size_t* size) {
  if (first > pool.size() || count > pool.size() - first) return false;
  *data = count == 0 ? nullptr : pool.data() + first;
  *size = static_cast<size_t>(count);
  return true;
}

}  // namespace

bool DecodeDiscoveryDelivery(const ObjectArg* args, uint32_t counts, DiscoveryResults* out) {
  if (counts != kDiscoveryDeliveryCounts || args == nullptr) return false;
  const ObjectBuf& header = args[0].b;
  if (header.ptr == nullptr || header.size != sizeof(DiscoveryResponseHeader)) return false;
  memcpy(&out->header, header.ptr, sizeof out->header);
  CopyCommon(args, out);
  out->macs.clear();
  return true;
}

bool DecodeRangingDelivery(const ObjectArg* args, uint32_t counts, RangingResults* out) {
  if (counts != kRangingDeliveryCounts || args == nullptr) return false;
  const ObjectBuf& status = args[0].b;
  if (status.ptr == nullptr || status.size != sizeof(uint32_t)) return false;
  memcpy(&out->scanStatus, status.ptr, sizeof out->scanStatus);
  CopyCommon(args, out);
  CopyRecords(args[4].b, &out->macs, &out->dropped_bytes);
  return true;
}

bool DecodeDeauthEvent(const ObjectArg* args, uint32_t counts, DeauthEvent* out) {
  if (counts != kDeauthEventCounts || args == nullptr) return false;
  const ObjectBuf& event = args[0].b;
  if (event.ptr == nullptr || event.size != sizeof(DeauthEvent)) return false;
  memcpy(out, event.ptr, sizeof *out);
  return true;
}

PoolSlice SlicePool(const std::vector<uint8_t>& pool, uint64_t offset, uint64_t length) {
  PoolSlice slice;
  slice.valid = CheckedRange(pool, offset, length, &slice.data, &slice.size);
  return slice;
}

RecordParts PartsOf(const ScanRecords& results, const WifiScanMeasurement& record) {
  RecordParts parts;
  parts.bytes = SlicePool(results.pool, record.bytesOffset, record.bytesLength);
  parts.element_a = SlicePool(results.pool, record.elementAOffset, record.elementALength);
  parts.element_b = SlicePool(results.pool, record.elementBOffset, record.elementBLength);
  parts.ies = SlicePool(results.pool, record.beaconIesOffset, record.beaconIesLength);
  parts.infos_valid = CheckedRange(results.infos, record.firstInfoIndex, record.infoCount,
                                   &parts.infos, &parts.info_count);
  parts.macs_valid = CheckedRange(results.macs, record.firstMacIndex, record.macCount, &parts.macs,
                                  &parts.mac_count);
  return parts;
}

std::vector<uint8_t> SsidOf(const WifiScanMeasurement& record) {
  if (record.ssidPresent == 0) return {};
  size_t length = record.ssidLength;
  if (length > sizeof record.ssid) length = sizeof record.ssid;
  return std::vector<uint8_t>(record.ssid, record.ssid + length);
}

}  // namespace teskclient
