// Scenario text from a file is untrusted: parse it, and when it parses, let
// the simulated neighbourhood answer from it so that fuzzed elements reach
// the code that reads them.
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/libvela_client/neighbourhood.h"
#include "host/libvela_client/scenario_parser.h"

namespace {
constexpr size_t kMaxAnsweredAps = 2000;
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace ky_loc_fw;
  vela_sim::Scenario scenario;
  std::string error;
  if (!vela_sim::ParseScenario(std::string(reinterpret_cast<const char*>(data), size), &scenario,
                               &error)) {
    return 0;
  }
  // Every access point is measured by the same code; a repeated neighbourhood
  // of thousands would only slow the search down.
  if (scenario.aps.size() > kMaxAnsweredAps) return 0;
  vela_sim::Neighbourhood neighbourhood(scenario, 1000000);
  vela_sim::SentRequest request;
  request.requestId = 1;
  request.requestType = VELARequest::REQUEST_TYPE_DISCOVERY_SCAN;
  request.scanFlag = true;
  vela_sim::Answer fresh = neighbourhood.AnswerDiscovery(request, 2000000);
  request.kind = VELADiscoveryScanRequest::KIND_CACHE_ONLY;
  request.cacheFlag = true;
  vela_sim::Answer cached = neighbourhood.AnswerDiscovery(request, 3000000);

  vela_sim::SentRequest ranging;
  ranging.requestId = 2;
  ranging.requestType = VELARequest::REQUEST_TYPE_RANGING_SCAN;
  for (const vela_sim::ScenarioRange& r : scenario.ranges) {
    VELANodeInfo node;
    node.mac = vela_sim::FromMac48(r.mac);
    ranging.nodes.push_back(node);
  }
  vela_sim::Answer ranged = neighbourhood.AnswerRanging(ranging, 4000000);
  return 0;
}
