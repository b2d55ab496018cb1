// Scenario text from a file is untrusted: parse it, and when it parses, let
// the simulated neighbourhood answer from it so that fuzzed elements reach
// the code that reads them.
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/libvela_client/neighbourhood.h"
#include "host/libvela_client/scenario_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ky_loc_fw;
  vela_sim::Scenario scenario;
  std::string error;
  // Every access point is measured by the same code; a repeated neighbourhood
  // of thousands would only slow the search down.
  if (!vela_sim::ParseScenario(std::string(reinterpret_cast<const char*>(data), size), &scenario,
                               &error) ||
      scenario.aps.size() > 2000) {
    return 0;
  }
  vela_sim::Neighbourhood neighbourhood(scenario, 1000000);
  vela_sim::SentRequest request;
  request.scanFlag = true;
  neighbourhood.AnswerDiscovery(request, 2000000);
  request.kind = VELADiscoveryScanRequest::KIND_CACHE_ONLY;
  request.cacheFlag = true;
  neighbourhood.AnswerDiscovery(request, 3000000);

  vela_sim::SentRequest ranging;
  for (const vela_sim::ScenarioRange& r : scenario.ranges) {
    ranging.nodes.emplace_back().mac = vela_sim::FromMac48(r.mac);
  }
  neighbourhood.AnswerRanging(ranging, 4000000);
  return 0;
}
