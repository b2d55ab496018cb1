// Where a test may steer the simulated service. The library itself records
// and holds nothing: with no observer installed (as in the daemon users run)
// every request is answered as the scenario says. The testing library
// installs the only observer.
#ifndef VELA_CLIENT_CONTROL_SEAM_H_
#define VELA_CLIENT_CONTROL_SEAM_H_

#include <memory>
#include <string>
#include <vector>

#include "ky_loc_fw/vela_client.h"

namespace ky_loc_fw {
namespace vela_sim {

class DeliveryQueue;
class SimulatedClient;

// A copy of every value of one request, taken inside sendRequest.
struct SentRequest {
  unsigned int requestId = 0;
  int requestType = 0;  // VELARequest::eRequestType

  // Discovery scans.
  VELADiscoveryScanRequest::eRequestKind kind = VELADiscoveryScanRequest::KIND_FRESH_SCAN;
  bool hasChannels = false;
  std::vector<unsigned int> channels;  // the values the VELAChannelInfo entries were made from
  VELADiscoveryScanRequest::eBand band = VELADiscoveryScanRequest::BAND_ALL;
  VELADiscoveryScanRequest::eScanType scanType = VELADiscoveryScanRequest::SCAN_TYPE_ACTIVE;
  unsigned int ageFilter = 0;
  unsigned int fallbackParam = 0;
  long timeout = 0;
  VELADiscoveryScanRequest::eRequestMode requestMode =
      VELADiscoveryScanRequest::REQUEST_MODE_NORMAL;
  bool cacheFlag = false;
  bool scanFlag = false;
  std::vector<VELASsid> ssidFilter;
  std::vector<VELAMacAddress> bssidFilter;

  // Ranging scans: nodes for one-shot requests, periodicNodes for periodic
  // ones.
  std::vector<VELANodeInfo> nodes;
  std::vector<VELAPeriodicNodeInfo> periodicNodes;
  long timestamp = 0;
};

// What sendRequest does with one request; an observer may change it.
struct SendAction {
  // Returned by sendRequest; nonzero refuses the request, and then no
  // automatic answer follows.
  int result = 0;
  // Answer as the scenario says (after its latency, with its faults).
  bool automaticAnswer = true;
  // Delivered in this order on the delivery thread: sendRequest returns once
  // that thread has taken the last of them, on its way into the listener (it
  // does not wait for the call). Null entries deliver a null response. The
  // client takes ownership.
  std::vector<VELAResponse*> beforeReturn;
};

class ControlObserver {
 public:
  virtual ~ControlObserver() = default;
  virtual void ClientCreated(SimulatedClient* client, std::shared_ptr<DeliveryQueue> queue) = 0;
  virtual void ClientDestroyed(SimulatedClient* client) = 0;
  // Inside sendRequest, on the caller's thread, before anything is answered.
  virtual void RequestSent(const SentRequest& request, SendAction* action) = 0;
  // True when it keeps response (the answer is then held, not scheduled).
  virtual bool Hold(SimulatedClient* client, std::unique_ptr<VELAResponse>* response) = 0;
  // The scenario text a test set; false when none.
  virtual bool ScenarioText(std::string* text) = 0;
};

// Installs observer for the rest of the process (it is never destroyed).
void SetControlObserver(ControlObserver* observer);
// Null when no test controls the process.
ControlObserver* GetControlObserver();

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_CONTROL_SEAM_H_
