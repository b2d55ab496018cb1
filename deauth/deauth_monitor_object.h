// The deauth monitor service object handed out for interface id 30: a
// stateless front of the DeauthMonitor singleton.
#ifndef TESK_DEAUTH_DEAUTH_MONITOR_OBJECT_H_
#define TESK_DEAUTH_DEAUTH_MONITOR_OBJECT_H_

#include <cstdint>

#include <tesk/object.h>

// {deauth_monitor_invoke, null}.
Object CreateDeauthMonitor();

// Op 0 with counts 0x1100 registers the callback in args[0] and writes its
// token to args[1]; retain and release answer 0; anything else 2.
int32_t deauth_monitor_invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

#endif  // TESK_DEAUTH_DEAUTH_MONITOR_OBJECT_H_
