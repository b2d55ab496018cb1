#include "passed_back.h"

#include "connection.h"

namespace tarnsocket {

int32_t PassedBackInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  PassedBack* passed = static_cast<PassedBack*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
      passed->refs.fetch_add(1);
      return OBJECT_OK;
    case OBJECT_OP_RELEASE:
      if (passed->refs.fetch_sub(1) == 1) passed->connection->ReleasePassedBack(passed);
      return OBJECT_OK;
    default:
      return passed->object.invoke(passed->object.context, op, args, counts);
  }
}

}  // namespace tarnsocket
