// A callback Object for the daemon to deliver results to. Deliveries arrive
// on the IPC library's threads, and their buffers are valid only during the
// call: the handler must copy what it keeps.
#ifndef TESK_CLIENT_TESKCLIENT_CALLBACK_OBJECT_H_
#define TESK_CLIENT_TESKCLIENT_CALLBACK_OBJECT_H_

#include <cstdint>
#include <functional>

#include <tesk/object.h>

namespace teskclient {

using DeliveryHandler = std::function<void(const ObjectArg* args, uint32_t counts)>;

// Returns an object carrying one reference. Op 0 calls `handler` and
// answers 0; retain and release count references, and the last release
// destroys the handler; any other op answers 2.
Object MakeCallbackObject(DeliveryHandler handler);

}  // namespace teskclient

#endif  // TESK_CLIENT_TESKCLIENT_CALLBACK_OBJECT_H_
