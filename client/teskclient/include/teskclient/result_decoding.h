// Decodes the buffers delivered to a scan callback into owned copies, and
// slices each scan record's share of the pools with every index, offset and
// length checked against what was actually delivered. Nothing here trusts
// a size, count or offset that came from the peer.
#ifndef TESK_CLIENT_TESKCLIENT_RESULT_DECODING_H_
#define TESK_CLIENT_TESKCLIENT_RESULT_DECODING_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include <tesk/deauth_event.h>
#include <tesk/object.h>
#include <tesk/scan_records.h>
#include <tesk/scan_requests.h>

namespace teskclient {

// The record arrays shared by both kinds of result. Record counts come from
// the buffer sizes; a trailing partial record is dropped and counted.
struct ScanRecords {
  std::vector<WifiScanMeasurement> records;
  std::vector<WifiMeasurementInfo> infos;
  std::vector<uint8_t> pool;
  std::vector<WifiMacAddress> macs;  // ranging only
  size_t dropped_bytes = 0;          // partial records ignored
};

struct DiscoveryResults : ScanRecords {
  DiscoveryResponseHeader header{};
};

struct RangingResults : ScanRecords {
  uint32_t scanStatus = 0;
};

// False when the delivery's shape is wrong (counts, or buffer 0 not exactly
// the header's or the status's size); the output is then meaningless.
bool DecodeDiscoveryDelivery(const ObjectArg* args, uint32_t counts, DiscoveryResults* out);
bool DecodeRangingDelivery(const ObjectArg* args, uint32_t counts, RangingResults* out);

// One disconnect event; false when the delivery is not exactly one
// DeauthEvent buffer.
bool DecodeDeauthEvent(const ObjectArg* args, uint32_t counts, DeauthEvent* out);

// A checked slice of the byte pool. `valid` is false when the record points
// outside the pool; data and size are then null and 0.
struct PoolSlice {
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool valid = true;
};

// One scan record's pooled parts. Absent elements (length 0) are valid
// empty slices.
struct RecordParts {
  PoolSlice bytes;
  PoolSlice element_a;
  PoolSlice element_b;
  PoolSlice ies;
  const WifiMeasurementInfo* infos = nullptr;
  size_t info_count = 0;
  bool infos_valid = true;
  const WifiMacAddress* macs = nullptr;
  size_t mac_count = 0;
  bool macs_valid = true;
};

PoolSlice SlicePool(const std::vector<uint8_t>& pool, uint64_t offset, uint64_t length);
RecordParts PartsOf(const ScanRecords& results, const WifiScanMeasurement& record);

// The record's SSID bytes: empty unless ssidPresent, and never more than the
// 32 bytes of the field whatever ssidLength claims.
std::vector<uint8_t> SsidOf(const WifiScanMeasurement& record);

}  // namespace teskclient

#endif  // TESK_CLIENT_TESKCLIENT_RESULT_DECODING_H_
