// Targets of ranging scans. The fields are public and laid out in this order
// on purpose: ranging requests are built by filling them one by one. Field
// names that look positional (nodeValue1, nodeEnum2, ...) name the request
// record field that the service's clients fill them from; the comments give
// what the location service makes of them.
#ifndef KY_LOC_FW_VELA_NODE_INFO_H_
#define KY_LOC_FW_VELA_NODE_INFO_H_

#include <cstdint>

#include "ky_loc_fw/vela_mac_address.h"

namespace ky_loc_fw {

class VELANodeInfo {
 public:
  enum eBandwidth : uint32_t {
    BANDWIDTH_DEFAULT = 0,
    BANDWIDTH_20MHZ = 1,
    BANDWIDTH_40MHZ = 2,
    BANDWIDTH_80MHZ = 3,
    BANDWIDTH_160MHZ = 4,
    BANDWIDTH_80P80MHZ = 5,
  };
  enum ePreamble : uint32_t {
    PREAMBLE_LEGACY = 0,
    PREAMBLE_HT = 1,
    PREAMBLE_VHT = 2,
    PREAMBLE_HE = 3,
  };
  enum ePeerType : uint32_t {
    PEER_UNKNOWN = 0,
    PEER_AP = 1,
    PEER_STA = 2,
    PEER_P2P_GO = 3,
    PEER_P2P_CLIENT = 4,
  };
  enum eRangingMethod : uint32_t {
    METHOD_DEFAULT = 0,
    METHOD_ONE_SIDED = 1,
    METHOD_TWO_SIDED = 2,
    METHOD_ANY = 3,
  };

  static constexpr uint32_t kDefaultFtmsPerBurst = 8;

  // Everything zero, except nodeEnum2 (PREAMBLE_HT) and ftmsPerBurst (8).
  VELANodeInfo();

  VELAMacAddress mac;   // the station to range with
  uint32_t nodeValue1;  // primary channel frequency, MHz
  uint32_t nodeValue2;  // centre frequency of segment 0, MHz
  uint32_t nodeValue3;  // centre frequency of segment 1, MHz (0: none)
  eBandwidth nodeEnum1;
  VELAMacAddress peerMac;  // the station's other address (e.g. its AP); 0 when none
  ePreamble nodeEnum2;
  ePeerType nodeEnum3;
  uint32_t ftmsPerBurst;  // clients leave the default
  eRangingMethod nodeEnum4;
  uint8_t nodeByte1;    // nonzero: ask for the station's location (LCI)
  uint8_t nodeByte2;    // nonzero: ask for its civic address (LCR)
  uint32_t nodeValue4;  // burst duration, microseconds (0: the service's choice)
};

class VELAPeriodicNodeInfo : public VELANodeInfo {
 public:
  // As VELANodeInfo, plus maxBursts 0 (no limit) and the periodic fields 0.
  VELAPeriodicNodeInfo();

  uint32_t maxBursts;       // clients leave the default
  uint8_t periodicByte;     // nonzero: report every burst, not only changes
  uint32_t periodicValue1;  // burst period, milliseconds
  uint32_t periodicValue2;  // number of reports wanted (0: until cancelled)
};

}  // namespace ky_loc_fw

#endif  // KY_LOC_FW_VELA_NODE_INFO_H_
