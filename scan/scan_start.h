// What both scan objects do to start a scan once their request is built:
// draw its id from the dispatcher and hand it over with their response
// function and the caller's callback object.
#ifndef TESK_SCAN_SCAN_START_H_
#define TESK_SCAN_SCAN_START_H_

#include <cstdint>

#include <tesk/object.h>

#include "dispatch/vela_dispatcher.h"

// The next request id: the dispatcher's counter after an atomic increment,
// so the first id is 1.
uint32_t NextRequestId();

// Sends `request` (still the caller's) with `response` for its results and
// `callback` for the client, writing the handle to *handle_out on success.
// 0 when the dispatcher accepted it; 1 for a request that could not be built
// (null) and for every dispatcher failure, folded into 1 on purpose.
int32_t StartScan(ky_loc_fw::VELARequest* request,
                  void (*response)(ky_loc_fw::VELAResponse*, Object), Object callback,
                  Object* handle_out);

#endif  // TESK_SCAN_SCAN_START_H_
