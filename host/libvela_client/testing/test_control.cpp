// The process-wide state of vela_test_control.h: the observer that the
// simulated clients report to once a test binary links this library.
#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/libvela_client/control_seam.h"
#include "host/libvela_client/delivery_queue.h"
#include "ky_loc_fw/vela_test_control.h"

namespace ky_loc_fw {
namespace vela_test {

namespace {

// A test that forgets to Reset must not turn recording into a leak.
constexpr size_t kMaxRecordedRequests = 4096;

using vela_sim::DeliveryQueue;
using vela_sim::SimulatedClient;
using Queue = std::shared_ptr<DeliveryQueue>;
// An answer kept while answers are held, and the queue it is due on.
using HeldAnswer = std::pair<Queue, std::unique_ptr<VELAResponse>>;

class Control : public vela_sim::ControlObserver {
 public:
  static Control& Get() {
    static Control* control = new Control();  // never destroyed: clients may outlive main
    return *control;
  }

  void ClientCreated(SimulatedClient* client, Queue queue) override {
    std::lock_guard<std::mutex> lock(mutex);
    clients.emplace_back(client, std::move(queue));
  }

  // Its held answers stay until released or dropped; its queue, stopped by
  // then, deletes them instead of delivering them.
  void ClientDestroyed(SimulatedClient* client) override {
    std::lock_guard<std::mutex> lock(mutex);
    clients.erase(std::remove_if(clients.begin(), clients.end(),
                                 [&](const auto& c) { return c.first == client; }),
                  clients.end());
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
    for (const auto& c : clients) {
      if (hold && c.first == client) held.emplace_back(c.second, std::move(*response));
    }
    return hold;
  }

  bool ScenarioText(std::string* text) override {
    std::lock_guard<std::mutex> lock(mutex);
    if (scenario_text) *text = *scenario_text;
    return scenario_text.has_value();
  }

  // The current client's queue; null when none is alive.
  Queue CurrentQueue() {
    std::lock_guard<std::mutex> lock(mutex);
    return clients.empty() ? nullptr : clients.back().second;
  }

  std::mutex mutex;
  bool recording = false;
  std::vector<SentRequest> sent;
  SendHook hook;
  bool hold = false;
  std::vector<HeldAnswer> held;
  std::vector<std::pair<SimulatedClient*, Queue>> clients;  // alive, in creation order
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

}  // namespace

void Reset() {
  std::vector<HeldAnswer> dropped;  // deleted outside the lock
  SendHook old_hook;
  Locked([&](Control& c) {
    c.recording = false;
    std::vector<SentRequest>().swap(c.sent);
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
    for (HeldAnswer& h : c.held)
      h.first->Schedule(std::move(h.second), DeliveryQueue::Clock::now());
    const size_t count = c.held.size();
    c.held.clear();
    return count;
  });
}

std::vector<std::unique_ptr<VELAResponse>> TakeHeldAnswers() {
  return Locked([](Control& c) {
    std::vector<std::unique_ptr<VELAResponse>> taken;
    for (HeldAnswer& h : c.held) taken.push_back(std::move(h.second));
    c.held.clear();
    return taken;
  });
}

int DeliverAndWait(VELAResponse* response) {
  std::unique_ptr<VELAResponse> owned(response);
  const Queue queue = Control::Get().CurrentQueue();
  const uint64_t seq =
      queue == nullptr ? 0 : queue->Schedule(std::move(owned), DeliveryQueue::Clock::now());
  if (seq != 0) queue->WaitFinished(seq);
  return seq != 0 ? 0 : -1;
}

void WaitIdle() {
  if (const Queue queue = Control::Get().CurrentQueue()) queue->WaitIdle();
}

void SetScenarioText(const char* text) {
  std::optional<std::string> scenario;
  if (text != nullptr) scenario = text;
  Locked([&scenario](Control& c) { c.scenario_text.swap(scenario); });
}

}  // namespace vela_test
}  // namespace ky_loc_fw
