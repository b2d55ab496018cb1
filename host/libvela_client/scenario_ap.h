// One "ap" line of a scenario.
#ifndef VELA_CLIENT_SCENARIO_AP_H_
#define VELA_CLIENT_SCENARIO_AP_H_

#include <string>
#include <vector>

#include "scenario.h"
#include "scenario_tokens.h"

namespace ky_loc_fw {
namespace vela_sim {

// Parses the words after "ap" into *ap: elements defaulted when none are
// given, vendor elements appended, a hidden access point's SSID blanked.
// False with the error set.
bool ParseAp(const std::vector<std::string>& tokens, ScenarioAp* ap, Errors* errors);

// Replaces the data of the first SSID element of ies with ssid; nothing when
// there is none.
void ReplaceSsidElement(std::vector<uint8_t>* ies, const std::vector<uint8_t>& ssid);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_SCENARIO_AP_H_
