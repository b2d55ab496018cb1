// The process-wide state of vela_test_control.h and the simulated clients'
// view of it (control_state.h).
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>

#include "control_state.h"
#include "ky_loc_fw/vela_test_control.h"
#include "scenario.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

struct LiveClient {
  SimulatedClient* client;
  std::shared_ptr<DeliveryQueue> queue;
};

struct HeldAnswer {
  SimulatedClient* client;
  std::unique_ptr<VELAResponse> response;
};

struct ControlState {
  std::mutex mutex;
  std::condition_variable recorded;
  std::vector<vela_test::SentRequest> sent;
  vela_test::SendHook hook;
  bool hold = false;
  std::vector<HeldAnswer> held;
  std::vector<LiveClient> clients;  // in creation order
  std::optional<std::string> scenario_text;
};

ControlState& State() {
  static ControlState* state = new ControlState();  // never destroyed: clients may outlive main
  return *state;
}

// The current client's queue; null when none is alive. Caller holds the mutex.
std::shared_ptr<DeliveryQueue> CurrentQueueLocked(ControlState& s) {
  return s.clients.empty() ? nullptr : s.clients.back().queue;
}

std::shared_ptr<DeliveryQueue> CurrentQueue() {
  ControlState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  return CurrentQueueLocked(s);
}

}  // namespace

void RegisterClient(SimulatedClient* client, std::shared_ptr<DeliveryQueue> queue) {
  ControlState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.clients.push_back(LiveClient{client, std::move(queue)});
}

void UnregisterClient(SimulatedClient* client) {
  std::vector<HeldAnswer> dropped;
  ControlState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.clients.erase(std::remove_if(s.clients.begin(), s.clients.end(),
                                 [&](const LiveClient& c) { return c.client == client; }),
                  s.clients.end());
  for (auto it = s.held.begin(); it != s.held.end();) {
    if (it->client == client) {
      dropped.push_back(std::move(*it));
      it = s.held.erase(it);
    } else {
      ++it;
    }
  }
}

vela_test::SendHook RecordRequest(const vela_test::SentRequest& request) {
  ControlState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.sent.push_back(request);
  s.recorded.notify_all();
  return s.hook;
}

bool HoldIfHeld(SimulatedClient* client, std::unique_ptr<VELAResponse>* response) {
  ControlState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.hold) return false;
  s.held.push_back(HeldAnswer{client, std::move(*response)});
  return true;
}

bool ScenarioOverride(std::string* text) {
  ControlState& s = State();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.scenario_text) return false;
  *text = *s.scenario_text;
  return true;
}

}  // namespace vela_sim

namespace vela_test {

using vela_sim::ControlState;
using vela_sim::DeliveryQueue;

void Reset() {
  std::vector<vela_sim::HeldAnswer> dropped;  // deleted outside the lock
  SendHook old_hook;
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.sent.clear();
  old_hook.swap(s.hook);
  s.hold = false;
  dropped.swap(s.held);
}

void SetSendHook(SendHook hook) {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.hook.swap(hook);
}

std::vector<SentRequest> SentRequests() {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.sent;
}

SentRequest WaitForRequest(size_t index) {
  ControlState& s = vela_sim::State();
  std::unique_lock<std::mutex> lock(s.mutex);
  s.recorded.wait(lock, [&] { return s.sent.size() > index; });
  return s.sent[index];
}

void HoldAnswers(bool hold) {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.hold = hold;
}

size_t HeldAnswerCount() {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  return s.held.size();
}

size_t ReleaseHeldAnswers() {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  const size_t count = s.held.size();
  for (vela_sim::HeldAnswer& held : s.held) {
    for (const vela_sim::LiveClient& c : s.clients) {
      if (c.client == held.client) {
        c.queue->Schedule(std::move(held.response), DeliveryQueue::Clock::now());
      }
    }
  }
  s.held.clear();
  return count;
}

size_t DropHeldAnswers() {
  std::vector<vela_sim::HeldAnswer> dropped;
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  dropped.swap(s.held);
  return dropped.size();
}

int Deliver(VELAResponse* response) {
  std::unique_ptr<VELAResponse> owned(response);
  std::shared_ptr<DeliveryQueue> queue = vela_sim::CurrentQueue();
  if (queue == nullptr) return -1;
  return queue->Schedule(std::move(owned), DeliveryQueue::Clock::now()) != 0 ? 0 : -1;
}

int DeliverAndWait(VELAResponse* response) {
  std::unique_ptr<VELAResponse> owned(response);
  std::shared_ptr<DeliveryQueue> queue = vela_sim::CurrentQueue();
  if (queue == nullptr) return -1;
  const uint64_t seq = queue->Schedule(std::move(owned), DeliveryQueue::Clock::now());
  if (seq == 0) return -1;
  queue->WaitFinished(seq);
  return 0;
}

void WaitIdle() {
  std::shared_ptr<DeliveryQueue> queue = vela_sim::CurrentQueue();
  if (queue != nullptr) queue->WaitIdle();
}

int LiveClientCount() {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  return static_cast<int>(s.clients.size());
}

void SetScenarioText(const char* text) {
  ControlState& s = vela_sim::State();
  std::lock_guard<std::mutex> lock(s.mutex);
  if (text == nullptr) {
    s.scenario_text.reset();
  } else {
    s.scenario_text = text;
  }
}

std::string DefaultScenarioText() {
  return vela_sim::DefaultScenarioText();
}

}  // namespace vela_test
}  // namespace ky_loc_fw
