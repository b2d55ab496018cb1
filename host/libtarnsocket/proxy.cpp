#include "proxy.h"

#include "connection.h"

namespace tarnsocket {

int32_t ProxyInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  Proxy* proxy = static_cast<Proxy*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
      proxy->connection->RetainProxy(proxy);
      return OBJECT_OK;
    case OBJECT_OP_RELEASE:
      proxy->connection->ReleaseProxy(proxy);
      return OBJECT_OK;
    default:
      return proxy->connection->Call(proxy->handle, op, args, counts);
  }
}

}  // namespace tarnsocket
