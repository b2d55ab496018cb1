// The record arrays of one response while it is being marshalled; each
// array's block is later handed to the remote callback as one buffer.
#ifndef TESK_SCAN_RESPONSE_DATA_H_
#define TESK_SCAN_RESPONSE_DATA_H_

#include <tesk/scan_records.h>

#include "scan/vector.h"

struct CommonResponseData {
  ky_loc_fw::vector<WifiScanMeasurement> measurements;  // one per measurement
  ky_loc_fw::vector<WifiMeasurementInfo> infos;         // details, pooled
  ky_loc_fw::vector<signed char> bytes;                 // byte pool
};

// Begins with exactly the layout of CommonResponseData, so the common
// marshalling fills the first three arrays of a ranging response too.
struct RangingData : CommonResponseData {
  ky_loc_fw::vector<WifiMacAddress> macs;  // ranging address pool
};

#endif  // TESK_SCAN_RESPONSE_DATA_H_
