#include "scan/scan_start.h"

uint32_t NextRequestId() {
  return ++VelaDispatcher::Get().next_request_id;
}

int32_t StartScan(ky_loc_fw::VELARequest* request,
                  void (*response)(ky_loc_fw::VELAResponse*, Object), Object callback,
                  Object* handle_out) {
  if (request == nullptr) return OBJECT_ERROR_NOT_STARTED;
  const int sent = VelaDispatcher::Get().SendRequest(request, response, callback, handle_out);
  return sent == 0 ? OBJECT_OK : OBJECT_ERROR_NOT_STARTED;
}
