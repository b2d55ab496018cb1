#include "service/root_object.h"

#include <cstring>

#include <tesk/interfaces.h>

#include "deauth/deauth_monitor_object.h"
#include "scan/discovery_scan.h"
#include "scan/ranging_scan.h"

int32_t root_invoke(void* /*context*/, uint32_t op, ObjectArg* args, uint32_t counts) {
  const uint32_t o = op & OBJECT_OP_MASK;
  // The root object lives as long as the process: references are not counted.
  if (o == OBJECT_OP_RETAIN || o == OBJECT_OP_RELEASE) return OBJECT_OK;
  if (o != OBJECT_OP_METHOD || counts != kRootCounts || args[0].b.size != sizeof(uint32_t)) {
    return OBJECT_ERROR_INVALID;
  }

  uint32_t id;
  memcpy(&id, args[0].b.ptr, sizeof id);
  args[1].o = kNullObject;
  switch (id) {
    case kInterfaceDiscoveryScan:
      args[1].o = CreateVelaDiscoveryScan();
      return OBJECT_OK;
    case kInterfaceRangingScan:
      args[1].o = CreateVelaRangingScan();
      return OBJECT_OK;
    case kInterfaceDeauthMonitor:
      args[1].o = CreateDeauthMonitor();
      return OBJECT_OK;
    default:
      return OBJECT_ERROR_INVALID;
  }
}
