// Flattening of the location library's measurements into the pointer-free
// records of <tesk/scan_records.h>, appended to the arrays of one response.
#ifndef TESK_SCAN_MARSHAL_H_
#define TESK_SCAN_MARSHAL_H_

#include <cstdint>

#include "scan/response_data.h"

namespace ky_loc_fw {
class VELAScanMeasurement;
class VELAFullBeaconScanMeasurement;
class VELARangingScanMeasurement;
}  // namespace ky_loc_fw

// Appends one scan record, the measurement's details and its bytes. A null
// measurement appends nothing. Failed appends show only in the log.
void MarshalCommon(CommonResponseData& out, const ky_loc_fw::VELAScanMeasurement* m);

// MarshalCommon, then the beacon's information elements into the byte pool.
void MarshalFullBeacon(CommonResponseData& out, const ky_loc_fw::VELAFullBeaconScanMeasurement* m);

// MarshalCommon, then the measurement's MAC list into the address pool.
void MarshalRanging(RangingData& out, const ky_loc_fw::VELARangingScanMeasurement* m);

// What marshalling some measurements appends to each array, counted before
// the first of them is marshalled so that each array is given its block once
// (Reserve) instead of growing into a fresh one again and again.
struct MarshalledSize {
  uint64_t measurements = 0;
  uint64_t infos = 0;
  uint64_t bytes = 0;
  uint64_t macs = 0;
};

// Adds what MarshalCommon, MarshalFullBeacon and MarshalRanging would append
// for `m`; a null measurement adds nothing.
void AddCommonSize(MarshalledSize& size, const ky_loc_fw::VELAScanMeasurement* m);
void AddFullBeaconSize(MarshalledSize& size, const ky_loc_fw::VELAFullBeaconScanMeasurement* m);
void AddRangingSize(MarshalledSize& size, const ky_loc_fw::VELARangingScanMeasurement* m);

// Room in each array for what it holds plus `size`. An array whose block
// cannot be had simply grows as it goes, with the array's own failures.
void Reserve(CommonResponseData& out, const MarshalledSize& size);
void Reserve(RangingData& out, const MarshalledSize& size);

#endif  // TESK_SCAN_MARSHAL_H_
