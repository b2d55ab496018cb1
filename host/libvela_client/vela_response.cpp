#include "ky_loc_fw/vela_response.h"

namespace ky_loc_fw {

namespace {

void DeleteAll(ky_loc_fw::vector<VELAScanMeasurement*>& measurements) {
  for (uint32_t i = 0; i < measurements.getCount(); ++i) delete measurements[i];
}

}  // namespace

VELAResponse::VELAResponse(unsigned int id) : requestId(id) {}

VELAResponse::~VELAResponse() = default;

VELADiscoveryScanResponse::VELADiscoveryScanResponse(unsigned int id)
    : VELAResponse(id),
      scanSource(SCAN_SOURCE_FRESH),
      scanStatus(SCAN_STATUS_SUCCESS),
      scanTimestamp(0) {}

VELADiscoveryScanResponse::~VELADiscoveryScanResponse() {
  DeleteAll(measurements);
}

int VELADiscoveryScanResponse::getResponseType() const {
  return RESPONSE_TYPE_DISCOVERY_SCAN;
}

VELARangingScanResponse::VELARangingScanResponse(unsigned int id)
    : VELAResponse(id), scanStatus(SCAN_STATUS_SUCCESS) {}

VELARangingScanResponse::~VELARangingScanResponse() {
  DeleteAll(measurements);
}

int VELARangingScanResponse::getResponseType() const {
  return RESPONSE_TYPE_RANGING_SCAN;
}

}  // namespace ky_loc_fw
