// The process-wide state of vela_test_control.h: the observer that the
// simulated clients report to once a test binary links this library.
#include <algorithm>
#include <mutex>
#include <optional>

#include "host/libvela_client/control_seam.h"
#include "host/libvela_client/delivery_queue.h"
#include "host/libvela_client/scenario_parser.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_test {

namespace {

using vela_sim::DeliveryQueue;
using vela_sim::SimulatedClient;

struct LiveClient {
  SimulatedClient* client;
  std::shared_ptr<DeliveryQueue> queue;
};

struct HeldAnswer {
  SimulatedClient* client;
  std::unique_ptr<VELAResponse> response;
};

class Control : public vela_sim::ControlObserver {
 public:
  static Control& Get() {
    static Control* control = new Control();  // never destroyed: clients may outlive main
    return *control;
  }

  void ClientCreated(SimulatedClient* client, std::shared_ptr<DeliveryQueue> queue) override {
    std::lock_guard<std::mutex> lock(mutex);
    clients.push_back(LiveClient{client, std::move(queue)});
  }

  void ClientDestroyed(SimulatedClient* client) override {
    std::vector<HeldAnswer> dropped;  // deleted outside the lock
    std::lock_guard<std::mutex> lock(mutex);
    clients.erase(std::remove_if(clients.begin(), clients.end(),
                                 [&](const LiveClient& c) { return c.client == client; }),
                  clients.end());
    auto mine = std::stable_partition(held.begin(), held.end(),
                                      [&](const HeldAnswer& h) { return h.client != client; });
    std::move(mine, held.end(), std::back_inserter(dropped));
    held.erase(mine, held.end());
  }

  void RequestSent(const SentRequest& request, SendAction* action) override {
    SendHook run;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (recording && sent.size() < kMaxRecordedRequests) sent.push_back(request);
      run = hook;
    }
    if (run) run(request, action);
  }

  bool Hold(SimulatedClient* client, std::unique_ptr<VELAResponse>* response) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (!hold) return false;
    held.push_back(HeldAnswer{client, std::move(*response)});
    return true;
  }

  bool ScenarioText(std::string* text) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (!scenario_text) return false;
    *text = *scenario_text;
    return true;
  }

  // The current client's queue; null when none is alive.
  std::shared_ptr<DeliveryQueue> CurrentQueue() {
    std::lock_guard<std::mutex> lock(mutex);
    return clients.empty() ? nullptr : clients.back().queue;
  }

  std::mutex mutex;
  bool recording = false;
  std::vector<SentRequest> sent;
  SendHook hook;
  bool hold = false;
  std::vector<HeldAnswer> held;
  std::vector<LiveClient> clients;  // in creation order
  std::optional<std::string> scenario_text;
};

// Installed before main, so that no client is created unobserved.
[[maybe_unused]] const bool installed = (vela_sim::SetControlObserver(&Control::Get()), true);

// Runs f on the control under its lock.
template <typename F>
auto Locked(F f) {
  Control& c = Control::Get();
  std::lock_guard<std::mutex> lock(c.mutex);
  return f(c);
}

// Queues `response` on the current client's delivery thread; its sequence
// number there, 0 when no client is alive.
uint64_t Schedule(VELAResponse* response, std::shared_ptr<DeliveryQueue>* queue) {
  std::unique_ptr<VELAResponse> owned(response);
  *queue = Control::Get().CurrentQueue();
  return *queue == nullptr ? 0 : (*queue)->Schedule(std::move(owned), DeliveryQueue::Clock::now());
}

}  // namespace

void Reset() {
  std::vector<HeldAnswer> dropped;  // deleted outside the lock
  SendHook old_hook;
  Locked([&](Control& c) {
    c.recording = false;
    c.sent.clear();
    c.sent.shrink_to_fit();
    old_hook.swap(c.hook);
    c.hold = false;
    dropped.swap(c.held);
  });
}

void RecordRequests() {
  Locked([](Control& c) { c.recording = true; });
}

void SetSendHook(SendHook hook) {
  Locked([&hook](Control& c) { c.hook.swap(hook); });
}

std::vector<SentRequest> SentRequests() {
  return Locked([](Control& c) { return c.sent; });
}

void HoldAnswers(bool hold) {
  Locked([hold](Control& c) { c.hold = hold; });
}

size_t ReleaseHeldAnswers() {
  return Locked([](Control& c) {
    const size_t count = c.held.size();
    for (HeldAnswer& h : c.held) {
      for (const LiveClient& live : c.clients) {
        if (live.client == h.client) {
          live.queue->Schedule(std::move(h.response), DeliveryQueue::Clock::now());
        }
      }
    }
    c.held.clear();
    return count;
  });
}

size_t DropHeldAnswers() {
  std::vector<HeldAnswer> dropped;  // deleted outside the lock
  Locked([&dropped](Control& c) { dropped.swap(c.held); });
  return dropped.size();
}

int Deliver(VELAResponse* response) {
  std::shared_ptr<DeliveryQueue> queue;
  return Schedule(response, &queue) != 0 ? 0 : -1;
}

int DeliverAndWait(VELAResponse* response) {
  std::shared_ptr<DeliveryQueue> queue;
  const uint64_t seq = Schedule(response, &queue);
  if (seq == 0) return -1;
  queue->WaitFinished(seq);
  return 0;
}

void WaitIdle() {
  std::shared_ptr<DeliveryQueue> queue = Control::Get().CurrentQueue();
  if (queue != nullptr) queue->WaitIdle();
}

void SetScenarioText(const char* text) {
  Locked([text](Control& c) {
    c.scenario_text.reset();
    if (text != nullptr) c.scenario_text = text;
  });
}

std::string DefaultScenarioText() {
  return vela_sim::DefaultScenarioText();
}

}  // namespace vela_test
}  // namespace ky_loc_fw
