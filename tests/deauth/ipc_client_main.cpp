// A client of the deauth monitor for the end-to-end test: registers one
// callback that prints every delivery on stdout, says "registered", then
// waits to be killed.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "deauth/deauth_event.h"
#include "service/object.h"
#include "tarnsocket/tarn_ipc.h"

namespace {

int32_t PrintDelivery(void* /*context*/, uint32_t op, ObjectArg* args, uint32_t counts) {
  if ((op & OBJECT_OP_MASK) != OBJECT_OP_METHOD) return OBJECT_OK;  // never freed
  if (counts != OBJECT_COUNTS(1, 0, 0, 0)) {
    printf("bad counts 0x%x\n", counts);
  } else {
    DeauthEvent event{};
    memcpy(&event, args[0].b.ptr, args[0].b.size < sizeof event ? args[0].b.size : sizeof event);
    printf("event %d %d %d %u size %llu\n", event.wiphy, event.ifindex, event.reason, event.by_ap,
           static_cast<unsigned long long>(args[0].b.size));
  }
  fflush(stdout);
  return OBJECT_OK;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s SOCKET\n", argv[0]);
    return 64;
  }
  Object root;
  if (TarnIPC_connect(argv[1], &root) != 0) return 3;

  uint32_t interface_id = 30;
  ObjectArg open[2];
  open[0].b = ObjectBuf{&interface_id, sizeof interface_id};
  open[1].o = kNullObject;
  if (root.invoke(root.context, OBJECT_OP_METHOD, open, OBJECT_COUNTS(1, 0, 0, 1)) != 0) return 2;
  const Object monitor = open[1].o;

  ObjectArg reg[2];
  reg[0].o = Object{PrintDelivery, nullptr};
  reg[1].o = kNullObject;
  if (monitor.invoke(monitor.context, OBJECT_OP_METHOD, reg, OBJECT_COUNTS(0, 0, 1, 1)) != 0) {
    return 2;
  }
  printf("registered\n");
  fflush(stdout);
  for (;;) pause();
}
