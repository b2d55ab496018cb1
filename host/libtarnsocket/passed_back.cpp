#include "passed_back.h"

#include <tesk/counted_object.h>

#include "connection.h"

namespace tarnsocket {

int32_t PassedBackInvoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  return InvokeCounted<PassedBack>(
      context, op,
      [args, counts](PassedBack& passed, uint32_t method) {
        return passed.object.invoke(passed.object.context, method, args, counts);
      },
      [](PassedBack& passed) { passed.connection->ReleasePassedBack(passed); });
}

}  // namespace tarnsocket
