// Answers of the location service. A response owns its measurements and
// deletes them with itself. Responses reach the client's listener through
// VELAClientListener::responseReceived and are deleted by the client after
// that call returns (see vela_client.h).
#ifndef KY_LOC_FW_VELA_RESPONSE_H_
#define KY_LOC_FW_VELA_RESPONSE_H_

#include <cstdint>

#include "ky_loc_fw/vela_measurement.h"
#include "scan/vector.h"

namespace ky_loc_fw {

class VELAResponse {
 public:
  enum eResponseType {
    RESPONSE_TYPE_DISCOVERY_SCAN = 1,
    RESPONSE_TYPE_RANGING_SCAN = 2,
  };
  // Values of the scanStatus fields.
  enum eScanStatus {
    SCAN_STATUS_SUCCESS = 0,
    SCAN_STATUS_FAILURE = 1,  // the radio could not scan
    SCAN_STATUS_TIMEOUT = 2,  // the request's timeout ran out first
    SCAN_STATUS_BUSY = 3,     // another client holds the radio
    SCAN_STATUS_ABORTED = 4,  // the request was cancelled
  };

  VELAResponse(const VELAResponse&) = delete;
  VELAResponse& operator=(const VELAResponse&) = delete;
  virtual ~VELAResponse();

  // The id of the request this answers.
  unsigned int getRequestId() const { return requestId; }
  // One of eResponseType.
  virtual int getResponseType() const = 0;

 protected:
  explicit VELAResponse(unsigned int id);

 private:
  unsigned int requestId;
};

// Answer to a VELADiscoveryScanRequest: one VELAFullBeaconScanMeasurement per
// access point.
class VELADiscoveryScanResponse : public VELAResponse {
 public:
  enum eScanSource {
    SCAN_SOURCE_FRESH = 0,
    SCAN_SOURCE_CACHE = 1,
  };

  // Status SCAN_STATUS_SUCCESS, source fresh, time 0, no measurements.
  explicit VELADiscoveryScanResponse(unsigned int id);
  ~VELADiscoveryScanResponse() override;  // deletes the measurements
  int getResponseType() const override;   // RESPONSE_TYPE_DISCOVERY_SCAN

  uint32_t scanSource;     // one of eScanSource
  int32_t scanStatus;      // one of eScanStatus
  uint64_t scanTimestamp;  // when the results were gathered, microseconds since boot
  ky_loc_fw::vector<VELAScanMeasurement*> measurements;  // owned; null entries allowed
};

// Answer to a ranging request, one-shot or periodic: a
// VELARangingScanMeasurement per target that answered the ranging exchange,
// a plain VELAScanMeasurement per target heard that cannot range.
class VELARangingScanResponse : public VELAResponse {
 public:
  explicit VELARangingScanResponse(unsigned int id);  // success, no measurements
  ~VELARangingScanResponse() override;                // deletes the measurements
  int getResponseType() const override;               // RESPONSE_TYPE_RANGING_SCAN

  int32_t scanStatus;                                    // one of eScanStatus
  ky_loc_fw::vector<VELAScanMeasurement*> measurements;  // owned; null entries allowed
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_RESPONSE_H_
