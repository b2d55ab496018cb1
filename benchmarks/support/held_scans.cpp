#include "benchmarks/support/held_scans.h"

#include "benchmarks/support/bench_support.h"
#include "ky_loc_fw/vela_request.h"
#include "ky_loc_fw/vela_test_control.h"

namespace bench {

namespace vt = ky_loc_fw::vela_test;
using Request = ky_loc_fw::VELADiscoveryScanRequest;

HeldScans::HeldScans(const std::string& scenario) {
  vt::SetScenarioText(scenario.c_str());
  client_.reset(ky_loc_fw::VELAClient::createInstance(&listener_, false,
                                                      ky_loc_fw::VELAClient::LOG_LEVEL_ERROR));
  vt::SetScenarioText(nullptr);
}

HeldScans::~HeldScans() {
  Drop();
}

double HeldScans::Send() {
  if (!client_) return -1;
  vt::HoldAnswers(true);
  std::unique_ptr<Request> request(
      Request::createFreshScanRequest(++id_, Request::BAND_ALL, Request::SCAN_TYPE_ACTIVE, 0, 10000,
                                      Request::REQUEST_MODE_NORMAL, true));
  const double start = NowNs();
  if (client_->sendRequest(request.get()) != 0) return -1;
  return NowNs() - start;
}

std::vector<std::unique_ptr<ky_loc_fw::VELAResponse>> HeldScans::Take() {
  return vt::TakeHeldAnswers();
}

void HeldScans::Drop() {
  vt::Reset();  // deletes the answers held, and holds no more
}

}  // namespace bench
