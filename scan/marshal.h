// Flattening of the location library's measurements into the pointer-free
// records of <tesk/scan_records.h>, appended to the arrays of one response.
#ifndef TESK_SCAN_MARSHAL_H_
#define TESK_SCAN_MARSHAL_H_

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

#endif  // TESK_SCAN_MARSHAL_H_
