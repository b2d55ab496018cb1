#include "dispatch/vela_dispatcher.h"

#include <cstdlib>
#include <utility>

#include "dispatch/request_handle.h"
#include "ky_loc_fw/log.h"

namespace {

constexpr char kTag[] = "tesk";

// Meaning of the client's flag and log level belongs to the location library.
constexpr bool kClientFlag = true;
constexpr int kClientLogLevel = 2;

}  // namespace

VelaDispatcher& VelaDispatcher::Get() {
  static VelaDispatcher dispatcher;
  return dispatcher;
}

VelaDispatcher::VelaDispatcher() {
  pending.max_load_factor(1.0f);
  client = ky_loc_fw::VELAClient::createInstance(
      this, kClientFlag, static_cast<ky_loc_fw::VELAClient::eLogLevel>(kClientLogLevel));
  if (client == nullptr) {
    ky_loc_fw::log_error(kTag, "Dispatcher: Could not create the VELAClient\n");
    // On purpose, whatever other threads run: without the location client
    // the daemon cannot serve a scan.
    exit(-1);  // NOLINT(concurrency-mt-unsafe)
  }
  ky_loc_fw::log_debug(kTag, "Dispatcher: initialized\n");
}

VelaDispatcher::~VelaDispatcher() {
  // Still pending remote objects are not released: the process is ending.
  delete client;
}

int32_t VelaDispatcher::SendRequest(ky_loc_fw::VELARequest* request, ResponseCallback callback,
                                    Object remote, Object* handle_out) {
  // Held across sendRequest so that a response arriving at once waits here
  // and then finds its entry.
  std::lock_guard<std::mutex> lock(mutex);
  const uint32_t id = request->getRequestId();
  if (pending.count(id) != 0) return -1;
  if (client->sendRequest(request) != 0) return -1;

  pending.emplace(request->getRequestId(), PendingRequest{std::move(callback), remote});
  ObjectRetain(remote);
  *handle_out = MakeRequestHandle(id);
  return 0;
}

void VelaDispatcher::responseReceived(ky_loc_fw::VELAResponse* response) {
  if (response == nullptr) {
    ky_loc_fw::log_warning(kTag, "Dispatcher: received Null response.\n");
    return;
  }
  const uint32_t id = response->getRequestId();
  ky_loc_fw::log_debug(kTag, "Dispatcher: responseReceived for ID = %d\n", static_cast<int>(id));

  ResponseCallback callback;
  Object remote;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = pending.find(id);
    if (it == pending.end()) {
      ky_loc_fw::log_warning(kTag, "Dispatcher: Unexpected request ID %d\n", static_cast<int>(id));
      return;
    }
    callback = it->second.callback;
    remote = it->second.remote;
    pending.erase(it);
  }
  // Outside the lock: the callback may call back into the dispatcher.
  callback(response, remote);
  ObjectRelease(remote);
}

void VelaDispatcher::Release(unsigned int id) {
  Object remote;
  {
    std::lock_guard<std::mutex> lock(mutex);
    auto it = pending.find(id);
    if (it == pending.end()) {
      // The normal end of a request whose response was delivered.
      ky_loc_fw::log_debug(kTag, "Dispatcher: Expected release for ID %d\n", static_cast<int>(id));
      return;
    }
    remote = it->second.remote;
    pending.erase(it);
  }
  // The request keeps running in the location service; its response will
  // find no entry.
  ObjectRelease(remote);
  ky_loc_fw::log_debug(kTag, "Dispatcher: Aborted ID %d\n", static_cast<int>(id));
}
