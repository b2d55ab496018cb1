#include "benchmarks/scan/scan_client.h"

#include <chrono>

#include <tesk/scan_records.h>

#include "benchmarks/support/bench_support.h"
#include "teskclient/callback_object.h"
#include "teskclient/session.h"

namespace bench {

ScanClient::ScanClient(const std::string& socket_path) {
  teskclient::DiscoveryScanPlan plan;
  plan.params.timeout = 10000;
  plan.params.band = 2;       // every band
  plan.params.scan_flag = 1;  // hidden access points too
  std::string error;
  if (!teskclient::EncodeDiscoveryScan(plan, &request_, &error)) return;

  Object root = kNullObject;
  if (teskclient::Connect(socket_path, &root) != 0) return;
  Object service = kNullObject;
  if (teskclient::OpenService(root, kInterfaceDiscoveryScan, &service) == OBJECT_OK) {
    service_ = service;
  }
  ObjectRelease(root);
  callback_ =
      teskclient::MakeCallbackObject([state = state_](const ObjectArg* args, uint32_t counts) {
        const double now = NowNs();
        size_t bytes = 0;
        for (unsigned i = 0; i < OBJECT_COUNTS_IN_BUFS(counts); ++i) bytes += args[i].b.size;
        {
          std::lock_guard<std::mutex> lock(state->mutex);
          state->at_ns = now;
          state->bytes = bytes;
          state->records =
              OBJECT_COUNTS_IN_BUFS(counts) > 1 ? args[1].b.size / sizeof(WifiScanMeasurement) : 0;
          state->delivered = true;
        }
        state->arrived.notify_one();
      });
}

ScanClient::~ScanClient() {
  if (!IsNullObject(callback_)) ObjectRelease(callback_);
  if (!IsNullObject(service_)) ObjectRelease(service_);
}

size_t ScanClient::RequestBytes() const {
  return request_.params.size() + request_.channels.size() + request_.ssids.size() +
         request_.bssids.size();
}

double ScanClient::Scan() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->delivered = false;
  }
  Object handle = kNullObject;
  const double start = NowNs();
  if (teskclient::StartDiscoveryScan(service_, request_, callback_, &handle) != OBJECT_OK) {
    return -1;
  }
  bool delivered;
  double at;
  {
    std::unique_lock<std::mutex> lock(state_->mutex);
    delivered =
        state_->arrived.wait_for(lock, std::chrono::seconds(30), [&] { return state_->delivered; });
    at = state_->at_ns;
  }
  ObjectRelease(handle);  // the scan is over; the daemon forgets it
  return delivered ? at - start : -1;
}

}  // namespace bench
