// One of this process's own objects as a peer passed it back: a counted
// object (tesk/counted_object.h) whose calls go straight to the object.
// While anything in this process holds it, its export to that peer stays
// pinned. So whatever this process keeps because a peer handed it over counts
// against that peer's exports, as if the peer still held it: a peer cannot
// pile up our objects past its limit by handing each back to be kept (a
// token registered as the callback of the next registration) and dropping
// its own reference.
#ifndef TARNSOCKET_PASSED_BACK_H_
#define TARNSOCKET_PASSED_BACK_H_

#include <stdint.h>

#include <atomic>
#include <memory>

#include <tesk/object.h>

namespace tarnsocket {

class Connection;

struct PassedBack {
  std::shared_ptr<Connection> connection;
  uint32_t handle;             // pinned in the connection's exports while this lives
  Object object;               // held by that export entry
  std::atomic<uint32_t> refs;  // 1 when handed out
};

int32_t PassedBackInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

// The object itself when object is a passed-back one, else object.
inline Object Unwrapped(const Object& object) {
  return object.invoke == PassedBackInvoke ? static_cast<PassedBack*>(object.context)->object
                                           : object;
}

}  // namespace tarnsocket

#endif  // TARNSOCKET_PASSED_BACK_H_
