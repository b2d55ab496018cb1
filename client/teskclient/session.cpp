#include "teskclient/session.h"

#include <tesk/interfaces.h>

#include "tarnsocket/tarn_ipc.h"

namespace teskclient {
namespace {

ObjectBuf InBuffer(const Bytes& bytes) {
  // The IPC library only reads input buffers.
  return ObjectBuf{const_cast<uint8_t*>(bytes.data()), bytes.size()};
}

}  // namespace

int Connect(const std::string& socket_path, Object* root) {
  return TarnIPC_connect(socket_path.c_str(), root);
}

int32_t OpenService(Object root, uint32_t interface_id, Object* service) {
  ObjectArg args[2];
  args[0].b = ObjectBuf{&interface_id, sizeof interface_id};
  args[1].o = kNullObject;
  const int32_t result = root.invoke(root.context, OBJECT_OP_METHOD, args, kRootCounts);
  if (result == OBJECT_OK) *service = args[1].o;
  return result;
}

int32_t StartDiscoveryScan(Object service, const EncodedDiscoveryScan& request, Object callback,
                           Object* handle) {
  ObjectArg args[6];
  args[0].b = InBuffer(request.params);
  args[1].b = InBuffer(request.channels);
  args[2].b = InBuffer(request.ssids);
  args[3].b = InBuffer(request.bssids);
  args[4].o = callback;
  args[5].o = kNullObject;
  const int32_t result =
      service.invoke(service.context, OBJECT_OP_METHOD, args, kDiscoveryScanCounts);
  if (result == OBJECT_OK) *handle = args[5].o;
  return result;
}

int32_t StartRangingScan(Object service, const EncodedRangingScan& request, Object callback,
                         Object* handle) {
  ObjectArg args[4];
  args[0].b = InBuffer(request.targets);
  args[1].b = InBuffer(request.ts);
  args[2].o = callback;
  args[3].o = kNullObject;
  const int32_t result = service.invoke(service.context, request.op, args, kRangingScanCounts);
  if (result == OBJECT_OK) *handle = args[3].o;
  return result;
}

int32_t WatchDisconnects(Object service, Object callback, Object* token) {
  ObjectArg args[2];
  args[0].o = callback;
  args[1].o = kNullObject;
  const int32_t result =
      service.invoke(service.context, OBJECT_OP_METHOD, args, kDeauthRegisterCounts);
  if (result == OBJECT_OK) *token = args[1].o;
  return result;
}

}  // namespace teskclient
