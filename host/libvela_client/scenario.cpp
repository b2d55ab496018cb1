#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

bool IdSet::Contains(uint32_t id) const {
  if (all) return true;
  for (const auto& range : ranges) {
    if (id >= range.first && id <= range.second) return true;
  }
  return false;
}

bool Scenario::HasFault(FaultKind kind, uint32_t id) const {
  for (const ScenarioFault& fault : faults) {
    if (fault.kind == kind && fault.ids.Contains(id)) return true;
  }
  return false;
}

bool Scenario::StatusFault(uint32_t id, int32_t* status) const {
  for (const ScenarioFault& fault : faults) {
    if (fault.kind == FaultKind::kStatus && fault.ids.Contains(id)) {
      *status = fault.status;
      return true;
    }
  }
  return false;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
