// The discovery scan object, served for interface id 1: one method that
// starts a Wi-Fi discovery scan described by four buffers; the results go to
// the caller's callback object later, from the location client's thread.
#ifndef TESK_SCAN_DISCOVERY_SCAN_H_
#define TESK_SCAN_DISCOVERY_SCAN_H_

#include <cstdint>

#include <tesk/object.h>

// {discovery_scan_invoke, null}: the object has no state.
Object CreateVelaDiscoveryScan();

// Op 0, counts 0x1104: parameters, channels, SSIDs, BSSIDs, callback in;
// request handle out. 0 started, 1 not started, 2 invalid invocation.
int32_t discovery_scan_invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

#endif  // TESK_SCAN_DISCOVERY_SCAN_H_
