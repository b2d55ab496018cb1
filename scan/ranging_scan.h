// The ranging scan object, served for interface id 2: op 0 starts a single
// ranging scan, op 1 a periodic one, each against a list of target records;
// the measurements go to the caller's callback object later.
#ifndef TESK_SCAN_RANGING_SCAN_H_
#define TESK_SCAN_RANGING_SCAN_H_

#include <cstdint>

#include <tesk/object.h>

// {ranging_scan_invoke, null}: the object has no state.
Object CreateVelaRangingScan();

// Op 0 or 1, counts 0x1102: target records and an 8-byte time value,
// callback in; request handle out. 0 started, 1 not started, 2 invalid.
int32_t ranging_scan_invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

#endif  // TESK_SCAN_RANGING_SCAN_H_
