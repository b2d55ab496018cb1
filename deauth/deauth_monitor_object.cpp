#include "deauth/deauth_monitor_object.h"

#include <tesk/interfaces.h>

#include "deauth/deauth_monitor.h"

Object CreateDeauthMonitor() {
  return Object{deauth_monitor_invoke, nullptr};
}

int32_t deauth_monitor_invoke(void* /*context*/, uint32_t op, ObjectArg* args, uint32_t counts) {
  const uint32_t o = op & OBJECT_OP_MASK;
  // Stateless and never destroyed: references are not counted.
  if (o == OBJECT_OP_RETAIN || o == OBJECT_OP_RELEASE) return OBJECT_OK;
  if (o != OBJECT_OP_METHOD || counts != kDeauthRegisterCounts) return OBJECT_ERROR_INVALID;
  // The callback is not checked: a null one is registered like any other.
  DeauthMonitor::Get().Listen(args[0].o, &args[1].o);
  return OBJECT_OK;
}
