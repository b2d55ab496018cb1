#include "ky_loc_fw/vela_node_info.h"

namespace ky_loc_fw {

VELANodeInfo::VELANodeInfo()
    : nodeValue1(0),
      nodeValue2(0),
      nodeValue3(0),
      nodeEnum1(BANDWIDTH_DEFAULT),
      nodeEnum2(PREAMBLE_HT),
      nodeEnum3(PEER_UNKNOWN),
      ftmsPerBurst(kDefaultFtmsPerBurst),
      nodeEnum4(METHOD_DEFAULT),
      nodeByte1(0),
      nodeByte2(0),
      nodeValue4(0) {}

VELAPeriodicNodeInfo::VELAPeriodicNodeInfo()
    : maxBursts(0), periodicByte(0), periodicValue1(0), periodicValue2(0) {}

}  // namespace ky_loc_fw
