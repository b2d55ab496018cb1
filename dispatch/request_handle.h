// The request-handle object a remote caller gets for each started request:
// dropping its last reference abandons the request if it is still pending.
#ifndef TESK_DISPATCH_REQUEST_HANDLE_H_
#define TESK_DISPATCH_REQUEST_HANDLE_H_

#include <atomic>
#include <cstdint>

#include <tesk/object.h>

struct RequestHandle {
  uint32_t id;
  std::atomic<uint32_t> refs{1};
};

// The handle object for request `id`, carrying one reference.
Object MakeRequestHandle(uint32_t id);

// The handle's invoke: retain and release only; any other op returns 2.
int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

#endif  // TESK_DISPATCH_REQUEST_HANDLE_H_
