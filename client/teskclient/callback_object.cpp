#include "teskclient/callback_object.h"

#include <atomic>
#include <utility>

namespace teskclient {
namespace {

struct CallbackRecord {
  explicit CallbackRecord(DeliveryHandler h) : handler(std::move(h)) {}
  std::atomic<uint32_t> refs{1};
  DeliveryHandler handler;
};

int32_t CallbackInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  auto* record = static_cast<CallbackRecord*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_METHOD:
      if (record->handler) record->handler(args, counts);
      return OBJECT_OK;
    case OBJECT_OP_RETAIN:
      record->refs.fetch_add(1);
      return OBJECT_OK;
    case OBJECT_OP_RELEASE:
      if (record->refs.fetch_sub(1) == 1) delete record;
      return OBJECT_OK;
    default:
      return OBJECT_ERROR_INVALID;
  }
}

}  // namespace

Object MakeCallbackObject(DeliveryHandler handler) {
  return Object{CallbackInvoke, new CallbackRecord(std::move(handler))};
}

}  // namespace teskclient
