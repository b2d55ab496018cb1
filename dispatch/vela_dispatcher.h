// The one connection to the location service, and the table that routes each
// of its responses to the remote caller whose request caused it.
#ifndef TESK_DISPATCH_VELA_DISPATCHER_H_
#define TESK_DISPATCH_VELA_DISPATCHER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <unordered_map>

#include <tesk/object.h>

#include "ky_loc_fw/vela_client.h"
#include "ky_loc_fw/vela_request.h"
#include "ky_loc_fw/vela_response.h"

class VelaDispatcher : public ky_loc_fw::VELAClientListener {
 public:
  // Gets the response and the remote caller's callback object, both borrowed
  // for the length of the call.
  using ResponseCallback = std::function<void(ky_loc_fw::VELAResponse*, Object)>;

  // Created on first use; exits the process with -1 when the location client
  // cannot be created.
  static VelaDispatcher& Get();

  VelaDispatcher(const VelaDispatcher&) = delete;
  VelaDispatcher& operator=(const VelaDispatcher&) = delete;

  // Sends `request` (still owned by the caller) and, once the client accepted
  // it, keeps `callback` and a reference to `remote` until its response comes
  // or the handle written to `handle_out` is dropped. 0 on success; -1 when
  // the id is already pending or the client refused, with nothing retained
  // and `handle_out` untouched.
  int32_t SendRequest(ky_loc_fw::VELARequest* request, ResponseCallback callback, Object remote,
                      Object* handle_out);

  // Forgets a pending request without delivering anything.
  void Release(unsigned int id);

  // Location client thread.
  void responseReceived(ky_loc_fw::VELAResponse* response) override;

  ~VelaDispatcher() override;

 private:
  struct PendingRequest {
    ResponseCallback callback;
    Object remote;
  };

  VelaDispatcher();

  ky_loc_fw::VELAClient* client = nullptr;

 public:
  // Callers draw request ids with ++next_request_id (atomic), so the first id
  // is 1; the dispatcher itself never touches it.
  std::atomic<uint32_t> next_request_id{0};

 private:
  std::mutex mutex;
  std::unordered_map<uint32_t, PendingRequest> pending;
};

#endif  // TESK_DISPATCH_VELA_DISPATCHER_H_
