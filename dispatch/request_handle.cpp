#include "dispatch/request_handle.h"

#include "dispatch/vela_dispatcher.h"

int32_t Invoke(void* context, uint32_t op, ObjectArg* /*args*/, uint32_t /*counts*/) {
  auto* handle = static_cast<RequestHandle*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
      handle->refs.fetch_add(1);
      return OBJECT_OK;
    case OBJECT_OP_RELEASE:
      if (handle->refs.fetch_sub(1) == 1) {
        VelaDispatcher::Get().Release(handle->id);
        delete handle;
      }
      return OBJECT_OK;
    default:
      return OBJECT_ERROR_INVALID;
  }
}
