// Reading a scenario from its text (format in README.md).
#ifndef VELA_CLIENT_SCENARIO_PARSER_H_
#define VELA_CLIENT_SCENARIO_PARSER_H_

#include <string>

#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

// Parses text into *out. On failure returns false with *error set to
// "line N: what is wrong" and *out unspecified.
bool ParseScenario(const std::string& text, Scenario* out, std::string* error);

// Reads and parses a file; errors name the path.
bool LoadScenarioFile(const char* path, Scenario* out, std::string* error);

// The built-in neighbourhood's text.
const std::string& DefaultScenarioText();

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_SCENARIO_PARSER_H_
