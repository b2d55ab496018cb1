// Delivery of one response's records to a client's callback object, and the
// walk over a response's measurements that both scan objects make first.
#ifndef TESK_SCAN_RESULT_DELIVERY_H_
#define TESK_SCAN_RESULT_DELIVERY_H_

#include <algorithm>
#include <cstdint>

#include <tesk/object.h>
#include <tesk/scan_requests.h>

#include "ky_loc_fw/vela_measurement.h"
#include "scan/response_data.h"
#include "scan/vector.h"

// Op 0, counts 4: the header, then the scan records, details and byte pool,
// each array's block in place; with no data (the bad-response path) the
// three are {null, 0}. The callback's result is ignored.
void DeliverDiscovery(Object callback, const DiscoveryResponseHeader& header,
                      const CommonResponseData* data);

// Op 0, counts 5: the status word, then the same three arrays and the MAC
// address pool.
void DeliverRanging(Object callback, uint32_t status, const RangingData* data);

// A response's measurement objects lie apart in the heap, each a wait of its
// own when first read. The walk below starts fetching each one while the one
// this many places before it is handled.
constexpr uint32_t kMeasurementsAhead = 2;

// Starts fetching the lines a measurement object may cover (as many as the
// largest measurement class takes), without reading it.
inline void FetchMeasurement(const ky_loc_fw::VELAScanMeasurement* m) {
  if (m == nullptr) return;
  constexpr std::uintptr_t kLine = 64;
  constexpr std::uintptr_t kLargest = std::max(sizeof(ky_loc_fw::VELAFullBeaconScanMeasurement),
                                               sizeof(ky_loc_fw::VELARangingScanMeasurement));
  const auto at = reinterpret_cast<std::uintptr_t>(m);
  for (std::uintptr_t line = at & ~(kLine - 1); line < at + kLargest; line += kLine) {
    // A hint, never a read: it cannot fault, and past a smaller object it
    // only fetches a line for nothing.
    __builtin_prefetch(reinterpret_cast<const void*>(line));  // NOLINT(performance-no-int-to-ptr)
  }
}

// Calls marshal(measurement, type) for each non-null measurement, in order.
template <typename Marshal>
void ForEachMeasurement(const ky_loc_fw::vector<ky_loc_fw::VELAScanMeasurement*>& measurements,
                        Marshal&& marshal) {
  const uint32_t count = measurements.getCount();
  // Plain iteration: every index is below the count.
  ky_loc_fw::VELAScanMeasurement* const* items = measurements.getData();
  for (uint32_t i = 0; i < count; ++i) {
    if (i + kMeasurementsAhead < count) FetchMeasurement(items[i + kMeasurementsAhead]);
    const ky_loc_fw::VELAScanMeasurement* m = items[i];
    // The library allows null entries; there is nothing to ask them.
    if (m != nullptr) marshal(m, m->getMeasurementType());
  }
}

#endif  // TESK_SCAN_RESULT_DELIVERY_H_
