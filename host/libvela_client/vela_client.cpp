#include "ky_loc_fw/vela_client.h"

#include <cstdlib>
#include <new>
#include <string>

#include "control_seam.h"
#include "ky_loc_fw/log.h"
#include "scenario_parser.h"
#include "simulated_client.h"

namespace ky_loc_fw {

namespace {

// The scenario a new client follows: a test's text, else the file named by
// VELA_SCENARIO, else the built-in neighbourhood.
bool LoadScenario(vela_sim::Scenario* scenario, std::string* source, std::string* error) {
  std::string text;
  vela_sim::ControlObserver* control = vela_sim::GetControlObserver();
  if (control != nullptr && control->ScenarioText(&text)) {
    *source = "set by the test";
    return vela_sim::ParseScenario(text, scenario, error);
  }
  // Nothing in a process that uses the library sets the environment.
  const char* path = std::getenv("VELA_SCENARIO");  // NOLINT(concurrency-mt-unsafe)
  if (path != nullptr && path[0] != '\0') {
    *source = path;
    return vela_sim::LoadScenarioFile(path, scenario, error);
  }
  *source = "built-in";
  if (!vela_sim::ParseScenario(vela_sim::DefaultScenarioText(), scenario, error)) {
    *error = "built-in: " + *error;
    return false;
  }
  return true;
}

}  // namespace

VELAClientListener::~VELAClientListener() = default;

VELAClient::VELAClient() = default;

VELAClient::~VELAClient() = default;

VELAClient* VELAClient::createInstance(VELAClientListener* listener, bool autoReconnect,
                                       eLogLevel logLevel) {
  log_set_local_level_for_tag("vela", static_cast<int>(logLevel));
  if (listener == nullptr) {
    log_error("vela", "createInstance needs a listener\n");
    return nullptr;
  }
  vela_sim::Scenario scenario;
  std::string source;
  std::string error;
  if (!LoadScenario(&scenario, &source, &error)) {
    log_error("vela", "bad scenario: %s\n", error.c_str());
    return nullptr;
  }
  if (scenario.refuseCreate) {
    log_error("vela", "the location service refused the connection (scenario %s)\n",
              source.c_str());
    return nullptr;
  }
  std::shared_ptr<vela_sim::DeliveryQueue> queue = vela_sim::DeliveryQueue::Start(listener);
  if (queue == nullptr) return nullptr;
  auto* client = new (std::nothrow) vela_sim::SimulatedClient(scenario, queue);
  if (client == nullptr) {
    queue->Stop();
    log_error("vela", "out of memory\n");
    return nullptr;
  }
  if (vela_sim::ControlObserver* control = vela_sim::GetControlObserver()) {
    control->ClientCreated(client, queue);
  }
  log_info("vela", "connected (scenario %s: %zu access points, latency %u ms%s)\n", source.c_str(),
           scenario.aps.size(), scenario.latencyMs, autoReconnect ? ", reconnecting" : "");
  return client;
}

}  // namespace ky_loc_fw
