// The root object served on the control socket: it hands out the service
// object of each interface id.
#ifndef TESK_SERVICE_ROOT_OBJECT_H_
#define TESK_SERVICE_ROOT_OBJECT_H_

#include <cstdint>

#include <tesk/object.h>

// Root object's invoke: op 0 with counts 0x1001 and a 4-byte interface id
// in args[0] writes the interface's object to args[1]. The context is unused.
int32_t root_invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

#endif  // TESK_SERVICE_ROOT_OBJECT_H_
