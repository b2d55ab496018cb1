// Builds the full-beacon measurement the service reports for one access
// point of the scenario, every field derived from the access point's
// elements the way a receiver would see them.
#ifndef VELA_CLIENT_BEACON_MEASUREMENT_H_
#define VELA_CLIENT_BEACON_MEASUREMENT_H_

#include <cstdint>
#include <vector>

#include "information_elements.h"
#include "ky_loc_fw/vela_measurement.h"
#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

struct BeaconContext {
  uint64_t whenUs = 0;    // time of the measurement
  uint32_t ageMs = 0;     // how old the result is when reported
  uint32_t sequence = 0;  // the service's running measurement number
  bool passive = false;   // heard during a passive scan
};

// What a receiver learns from an access point's elements.
struct ApTraits {
  int security = 0;  // 0 open, 1 WEP, 2 WPA, 3 WPA2, 4 WPA3
  uint16_t capability = 0;
  uint8_t phy = 0;    // 0 legacy, 1 HT, 2 VHT, 3 HE
  uint8_t width = 0;  // 0 20, 1 40, 2 80, 3 160 MHz
  uint16_t centre0Mhz = 0;
  uint16_t centre1Mhz = 0;
  uint8_t spatialStreams = 1;
  uint8_t dtimPeriod = 1;
  int8_t txPowerDbm = 0;
};

// What the service knows of an access point's frame before it measures it:
// the elements and what a receiver derives from them. Read once per access
// point, so that a scan of many costs only the measurements themselves.
struct ApFrame {
  ApTraits traits;
  std::vector<ElementRef> elements;
};

ApFrame ReadFrame(const ScenarioAp& ap);

// New measurement owned by the caller; null when memory runs out. frame is
// ReadFrame(ap).
VELAFullBeaconScanMeasurement* MeasureBeacon(const ScenarioAp& ap, const ApFrame& frame,
                                             const BeaconContext& context);

// Details of one receive chain, shared with the ranging measurements.
VELAMeasurementDetail* MeasureChain(uint32_t chain, int rssi_dbm, unsigned int frequency_mhz,
                                    uint64_t when_us, uint32_t frames);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_BEACON_MEASUREMENT_H_
