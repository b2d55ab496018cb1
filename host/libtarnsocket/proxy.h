// A peer's object as seen in this process: an Object whose invoke sends the
// call over the connection. Its references are counted here; the peer hears
// only of the last one going away.
#ifndef TARNSOCKET_PROXY_H_
#define TARNSOCKET_PROXY_H_

#include <stdint.h>

#include <memory>

#include <tesk/object.h>

namespace tarnsocket {

class Connection;

struct Proxy {
  std::shared_ptr<Connection> connection;
  uint32_t handle;
  uint32_t refs;      // guarded by the connection's mutex
  uint32_t received;  // frames that carried the handle; given back on release
};

int32_t ProxyInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

inline Object ProxyObject(Proxy* proxy) {
  return Object{ProxyInvoke, proxy};
}

// The proxy behind object if it is one, else null.
inline Proxy* AsProxy(const Object& object) {
  return object.invoke == ProxyInvoke ? static_cast<Proxy*>(object.context) : nullptr;
}

}  // namespace tarnsocket

#endif  // TARNSOCKET_PROXY_H_
