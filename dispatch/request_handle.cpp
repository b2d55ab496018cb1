#include "dispatch/request_handle.h"

#include <memory>
#include <utility>

#include <tesk/counted_object.h>

#include "dispatch/vela_dispatcher.h"

Object MakeRequestHandle(uint32_t id) {
  auto handle = std::make_unique<RequestHandle>();
  handle->id = id;
  return HandOutCounted(Invoke, std::move(handle));
}

int32_t Invoke(void* context, uint32_t op, ObjectArg* /*args*/, uint32_t /*counts*/) {
  return InvokeCounted<RequestHandle>(context, op, NoMethods{}, [](RequestHandle& handle) {
    VelaDispatcher::Get().Release(handle.id);
  });
}
