#include "teskclient/session.h"

#include <stddef.h>

#include <tesk/interfaces.h>

#include "tarnsocket/tarn_ipc.h"

namespace teskclient {
namespace {

ObjectBuf InBuffer(const Bytes& bytes) {
  // The IPC library only reads input buffers.
  return ObjectBuf{const_cast<uint8_t*>(bytes.data()), bytes.size()};
}

ObjectArg InObject(Object object) {
  ObjectArg arg;
  arg.o = object;
  return arg;
}

// Every call here hands out one object, in its last argument; `*out` is
// written only when the call succeeds.
template <size_t N>
int32_t InvokeForObject(Object target, uint32_t op, uint32_t counts, ObjectArg (&args)[N],
                        Object* out) {
  args[N - 1].o = kNullObject;
  const int32_t result = target.invoke(target.context, op, args, counts);
  if (result == OBJECT_OK) *out = args[N - 1].o;
  return result;
}

}  // namespace

int Connect(const std::string& socket_path, Object* root) {
  return TarnIPC_connect(socket_path.c_str(), root);
}

int32_t OpenService(Object root, uint32_t interface_id, Object* service) {
  ObjectArg args[2] = {{ObjectBuf{&interface_id, sizeof interface_id}}};
  return InvokeForObject(root, OBJECT_OP_METHOD, kRootCounts, args, service);
}

int32_t StartDiscoveryScan(Object service, const EncodedDiscoveryScan& request, Object callback,
                           Object* handle) {
  ObjectArg args[6] = {{InBuffer(request.params)},
                       {InBuffer(request.channels)},
                       {InBuffer(request.ssids)},
                       {InBuffer(request.bssids)},
                       InObject(callback)};
  return InvokeForObject(service, OBJECT_OP_METHOD, kDiscoveryScanCounts, args, handle);
}

int32_t StartRangingScan(Object service, const EncodedRangingScan& request, Object callback,
                         Object* handle) {
  ObjectArg args[4] = {{InBuffer(request.targets)}, {InBuffer(request.ts)}, InObject(callback)};
  return InvokeForObject(service, request.op, kRangingScanCounts, args, handle);
}

int32_t WatchDisconnects(Object service, Object callback, Object* token) {
  ObjectArg args[2] = {InObject(callback)};
  return InvokeForObject(service, OBJECT_OP_METHOD, kDeauthRegisterCounts, args, token);
}

}  // namespace teskclient
