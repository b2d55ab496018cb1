// The process-wide state behind vela_test_control.h, as the simulated client
// sees it. Lock order: this state's mutex before any client's locks.
#ifndef VELA_CLIENT_CONTROL_STATE_H_
#define VELA_CLIENT_CONTROL_STATE_H_

#include <memory>
#include <string>

#include "delivery_queue.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_sim {

class SimulatedClient;

void RegisterClient(SimulatedClient* client, std::shared_ptr<DeliveryQueue> queue);
// Drops the client's held answers too.
void UnregisterClient(SimulatedClient* client);

// Records a request; returns the hook to run on it (may be empty).
vela_test::SendHook RecordRequest(const vela_test::SentRequest& request);

// When answers are held, keeps response for client and returns true.
bool HoldIfHeld(SimulatedClient* client, std::unique_ptr<VELAResponse>* response);

// The scenario text set by a test; false when none is set.
bool ScenarioOverride(std::string* text);

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_CONTROL_STATE_H_
