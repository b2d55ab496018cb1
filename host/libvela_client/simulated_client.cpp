#include "simulated_client.h"

#include <new>
#include <utility>

#include "distinct_measurements.h"
#include "ky_loc_fw/log.h"

namespace ky_loc_fw {
namespace vela_sim {

namespace {

using Request = VELADiscoveryScanRequest;

template <typename T>
std::vector<T> ToStd(const ky_loc_fw::vector<T>& in) {
  std::vector<T> out;
  out.reserve(in.getCount());
  for (uint32_t i = 0; i < in.getCount(); ++i) out.push_back(in[i]);
  return out;
}

// Response types a listener must cope with although the service never means
// to send them.
constexpr int kOddType = 3;

void AddOddMeasurements(ky_loc_fw::vector<VELAScanMeasurement*>* list, bool discovery,
                        uint32_t seed) {
  ky_loc_fw::vector<VELAScanMeasurement*> mixed;
  mixed.push_back(NewMeasurementOfType(kOddType));
  for (uint32_t i = 0; i < list->getCount(); ++i) mixed.push_back((*list)[i]);
  if (discovery) {
    auto* plain = new VELAScanMeasurement();
    FillDistinct(plain, seed);
    mixed.push_back(plain);
    auto* ranging = new VELARangingScanMeasurement();
    FillDistinct(ranging, seed + 1);
    mixed.push_back(ranging);
  } else {
    auto* beacon = new VELAFullBeaconScanMeasurement();
    FillDistinct(beacon, seed);
    mixed.push_back(beacon);
  }
  *list = mixed;  // copies the pointers; the response owns them all
}

}  // namespace

bool CopyRequest(const VELARequest& request, SentRequest* out) {
  out->requestId = request.getRequestId();
  out->requestType = request.getRequestType();
  switch (out->requestType) {
    case VELARequest::REQUEST_TYPE_DISCOVERY_SCAN: {
      const auto* r = dynamic_cast<const VELADiscoveryScanRequest*>(&request);
      if (r == nullptr) return false;
      out->kind = r->getKind();
      out->hasChannels = r->hasChannels();
      for (uint32_t i = 0; i < r->getChannels().getCount(); ++i) {
        out->channels.push_back(r->getChannels()[i].getValue());
      }
      out->band = r->getBand();
      out->scanType = r->getScanType();
      out->ageFilter = r->getAgeFilter();
      out->fallbackParam = r->getFallbackParam();
      out->timeout = r->getTimeout();
      out->requestMode = r->getRequestMode();
      out->cacheFlag = r->getCacheFlag();
      out->scanFlag = r->getScanFlag();
      out->ssidFilter = ToStd(r->ssidFilter);
      out->bssidFilter = ToStd(r->bssidFilter);
      return true;
    }
    case VELARequest::REQUEST_TYPE_RANGING_SCAN: {
      const auto* r = dynamic_cast<const VELARangingScanRequest*>(&request);
      if (r == nullptr) return false;
      out->nodes = ToStd(r->getNodes());
      out->timestamp = r->getTimestamp();
      return true;
    }
    case VELARequest::REQUEST_TYPE_PERIODIC_RANGING_SCAN: {
      const auto* r = dynamic_cast<const VELAPeriodicRangingScanRequest*>(&request);
      if (r == nullptr) return false;
      out->periodicNodes = ToStd(r->getNodes());
      out->timestamp = r->getTimestamp();
      return true;
    }
    default:
      return false;
  }
}

SimulatedClient::SimulatedClient(const Scenario& scenario, std::shared_ptr<DeliveryQueue> queue)
    : queue_(std::move(queue)), neighbourhood_(scenario, NowUs()) {}

SimulatedClient::~SimulatedClient() {
  if (ControlObserver* control = GetControlObserver()) control->ClientDestroyed(this);
  queue_->Stop();
}

std::vector<Answer> SimulatedClient::AnswersFor(const SentRequest& request) {
  const Scenario& scenario = neighbourhood_.scenario();  // never changes after construction
  const uint32_t id = request.requestId;
  const bool discovery = request.requestType == VELARequest::REQUEST_TYPE_DISCOVERY_SCAN;
  std::vector<Answer> answers;
  if (scenario.HasFault(FaultKind::kDrop, id)) return answers;

  auto build = [&]() {
    Answer answer;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      answer = discovery ? neighbourhood_.AnswerDiscovery(request, NowUs())
                         : neighbourhood_.AnswerRanging(request, NowUs());
    }
    if (scenario.HasFault(FaultKind::kNull, id)) {
      answer.response.reset();
    } else if (scenario.HasFault(FaultKind::kWrongType, id)) {
      if (discovery) {
        answer.response.reset(new VELARangingScanResponse(id));
      } else {
        answer.response.reset(new VELADiscoveryScanResponse(id));
      }
    } else if (scenario.HasFault(FaultKind::kOddType, id)) {
      answer.response.reset(NewResponseOfType(id, kOddType));
    } else if (answer.response != nullptr) {
      int32_t status;
      const bool odd = scenario.HasFault(FaultKind::kOddMeasurement, id);
      const bool has_status = scenario.StatusFault(id, &status);
      if (discovery) {
        auto* r = static_cast<VELADiscoveryScanResponse*>(answer.response.get());
        if (odd) AddOddMeasurements(&r->measurements, true, id * 16);
        if (has_status) r->scanStatus = status;
      } else {
        auto* r = static_cast<VELARangingScanResponse*>(answer.response.get());
        if (odd) AddOddMeasurements(&r->measurements, false, id * 16);
        if (has_status) r->scanStatus = status;
      }
    }
    return answer;
  };
  answers.push_back(build());
  if (scenario.HasFault(FaultKind::kDuplicate, id)) answers.push_back(build());
  return answers;
}

int SimulatedClient::sendRequest(VELARequest* request) {
  if (request == nullptr) {
    log_error("vela", "null request refused\n");
    return -1;
  }
  SentRequest copy;
  if (!CopyRequest(*request, &copy)) {
    log_error("vela", "request %u of unknown type %d refused\n", request->getRequestId(),
              request->getRequestType());
    return -1;
  }
  ControlObserver* control = GetControlObserver();
  SendAction action;
  if (neighbourhood_.scenario().HasFault(FaultKind::kRefuse, copy.requestId)) action.result = -1;
  if (control != nullptr) control->RequestSent(copy, &action);

  const DeliveryQueue::Clock::time_point now = DeliveryQueue::Clock::now();
  uint64_t last_early = 0;
  for (VELAResponse* early : action.beforeReturn) {
    last_early = queue_->Schedule(std::unique_ptr<VELAResponse>(early), now);
  }
  if (action.result == 0 && action.automaticAnswer) {
    for (Answer& answer : AnswersFor(copy)) {
      if (control != nullptr && control->Hold(this, &answer.response)) continue;
      queue_->Schedule(std::move(answer.response), now + std::chrono::milliseconds(answer.delayMs));
    }
  }
  if (last_early != 0) queue_->WaitStarted(last_early);
  log_debug("vela", "request %u of type %d %s\n", copy.requestId, copy.requestType,
            action.result == 0 ? "accepted" : "refused");
  return action.result;
}

}  // namespace vela_sim
}  // namespace ky_loc_fw
