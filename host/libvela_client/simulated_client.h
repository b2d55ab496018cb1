// VELAClient on the host: answers requests from a simulated neighbourhood on
// its own delivery thread.
#ifndef VELA_CLIENT_SIMULATED_CLIENT_H_
#define VELA_CLIENT_SIMULATED_CLIENT_H_

#include <memory>
#include <mutex>

#include "control_seam.h"
#include "delivery_queue.h"
#include "ky_loc_fw/vela_client.h"
#include "neighbourhood.h"
#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

// Copies every value of request; false for a request of unknown type.
bool CopyRequest(const VELARequest& request, SentRequest* out);

class SimulatedClient : public VELAClient {
 public:
  SimulatedClient(const Scenario& scenario, std::shared_ptr<DeliveryQueue> queue);
  ~SimulatedClient() override;

  int sendRequest(VELARequest* request) override;

 private:
  // The automatic answers to request, faults applied; each with its delay.
  std::vector<Answer> AnswersFor(const SentRequest& request);

  std::shared_ptr<DeliveryQueue> queue_;
  std::mutex mutex_;  // guards neighbourhood_
  Neighbourhood neighbourhood_;
};

}  // namespace vela_sim
}  // namespace ky_loc_fw

#endif  // VELA_CLIENT_SIMULATED_CLIENT_H_
