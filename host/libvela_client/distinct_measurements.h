// Responses and measurements with made-up values, for the scenario faults
// that add odd ones to an answer (and for tests, through the testing
// library's builders).
#ifndef VELA_CLIENT_DISTINCT_MEASUREMENTS_H_
#define VELA_CLIENT_DISTINCT_MEASUREMENTS_H_

#include <cstdint>
#include <vector>

#include "ky_loc_fw/vela_response.h"

namespace ky_loc_fw {
namespace vela_sim {

// The platform vendor's OUI, as the simulated access points use it in their
// vendor-specific elements.
extern const uint8_t kVendorOui[3];

// A response whose type query yields type and that carries nothing else.
VELAResponse* NewResponseOfType(unsigned int id, int type);
// A plain measurement whose type query yields type.
VELAScanMeasurement* NewMeasurementOfType(int type);
VELAInfoElement* NewElement(uint8_t id, const std::vector<uint8_t>& data);  // at most 255 bytes

// Puts a distinct value, derived from seed, in every value field of m (the
// unread ones included), two details, 12 raw bytes and both elements; a full
// beacon also gets beaconTsf and four information elements (SSID, DS
// parameter set, one vendor element of 30 data bytes with kVendorOui, one
// other vendor element); a ranging measurement gets two addresses.
void FillDistinct(VELAScanMeasurement* m, uint32_t seed);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_DISTINCT_MEASUREMENTS_H_
