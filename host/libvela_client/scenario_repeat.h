// The "repeat" directive: a large neighbourhood made of copies of the access
// points defined so far, real frames and all.
#ifndef VELA_CLIENT_SCENARIO_REPEAT_H_
#define VELA_CLIENT_SCENARIO_REPEAT_H_

#include <cstddef>

#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

// Copy k (1, 2, ...) of access point i, for the access point at position
// index of the repeated list.
ScenarioAp DeriveCopy(const ScenarioAp& original, size_t index, size_t k);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_SCENARIO_REPEAT_H_
