#include "teskclient/callback_object.h"

#include <atomic>
#include <memory>
#include <utility>

#include <tesk/counted_object.h>

namespace teskclient {
namespace {

struct CallbackRecord {
  std::atomic<uint32_t> refs{1};
  DeliveryHandler handler;
};

int32_t CallbackInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  return InvokeCounted<CallbackRecord>(
      context, op,
      [args, counts](CallbackRecord& record, uint32_t method) {
        if (method != OBJECT_OP_METHOD) return OBJECT_ERROR_INVALID;
        if (record.handler) record.handler(args, counts);
        return OBJECT_OK;
      },
      [](CallbackRecord& /*record*/) {});
}

}  // namespace

Object MakeCallbackObject(DeliveryHandler handler) {
  auto record = std::make_unique<CallbackRecord>();
  record->handler = std::move(handler);
  return HandOutCounted(CallbackInvoke, std::move(record));
}

}  // namespace teskclient
