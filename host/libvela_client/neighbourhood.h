// The simulated radio environment: the scenario's access points and ranging
// answers, plus the scan cache that fresh scans fill. It turns one request
// (as copied by the client) into the response the service would give.
#ifndef VELA_CLIENT_NEIGHBOURHOOD_H_
#define VELA_CLIENT_NEIGHBOURHOOD_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "beacon_measurement.h"
#include "control_seam.h"
#include "ky_loc_fw/vela_response.h"
#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

struct Answer {
  std::unique_ptr<VELAResponse> response;
  uint32_t delayMs = 0;
};

// Microseconds since boot, the time base of every time stamp the service gives.
uint64_t NowUs();

Mac48 ToMac48(const VELAMacAddress& mac);
VELAMacAddress FromMac48(Mac48 mac);

class Neighbourhood {
 public:
  // Access points marked cached count as seen at now_us.
  Neighbourhood(const Scenario& scenario, uint64_t now_us);

  // Not thread-safe; the client serialises calls.
  Answer AnswerDiscovery(const SentRequest& request, uint64_t now_us);
  Answer AnswerRanging(const SentRequest& request, uint64_t now_us);

  const Scenario& scenario() const { return scenario_; }

 private:
  bool Scanned(const ScenarioAp& ap, const SentRequest& request) const;
  bool Reportable(const ScenarioAp& ap, const SentRequest& request, bool hidden_allowed) const;
  // Positions of the cached access points that the request may see; ages
  // in *ages_ms.
  std::vector<size_t> CachedMatches(const SentRequest& request, uint64_t now_us,
                                    bool hidden_allowed, std::vector<uint32_t>* ages_ms) const;
  Answer FreshAnswer(const SentRequest& request, uint64_t now_us, bool hidden_allowed);
  VELAScanMeasurement* MeasureRange(const VELANodeInfo& node, uint64_t when_us);

  Scenario scenario_;
  std::vector<ApFrame> frames_;         // one per access point, in scenario order
  std::vector<uint64_t> last_seen_us_;  // likewise; kNeverSeen until a scan sees it
  uint32_t sequence_ = 0;
};

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_NEIGHBOURHOOD_H_
