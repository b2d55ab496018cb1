// Reference-counted objects: a heap record behind an Object's context with
// an atomic `refs` member that is 1 when the object is handed out. Retain
// and release change it atomically, from any thread; the release that takes
// it to 0 runs the object's clean-up and frees the record, exactly once.
#ifndef TESK_COUNTED_OBJECT_H_
#define TESK_COUNTED_OBJECT_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

#include <tesk/object.h>

// The object for `record`, carrying its one reference; the record is freed
// by the last release through InvokeCounted.
template <typename Record>
Object HandOutCounted(ObjectInvoke invoke, std::unique_ptr<Record> record) {
  return Object{invoke, record.release()};
}

// The op switch of a counted object's invoke function. Retain and release
// answer 0; the last release calls `clean_up(record)` and then frees it.
// Any other op goes to `method(record, op)` (op cut to its low 16 bits).
template <typename Record, typename Method, typename CleanUp>
int32_t InvokeCounted(void* context, uint32_t op, Method&& method, CleanUp&& clean_up) {
  auto* record = static_cast<Record*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
      record->refs.fetch_add(1);
      return OBJECT_OK;
    case OBJECT_OP_RELEASE:
      if (record->refs.fetch_sub(1) == 1) {
        const std::unique_ptr<Record> last(record);
        std::forward<CleanUp>(clean_up)(*last);
      }
      return OBJECT_OK;
    default:
      return std::forward<Method>(method)(*record, op & OBJECT_OP_MASK);
  }
}

// The method of an object that has none: every op but retain and release is
// invalid.
struct NoMethods {
  template <typename Record>
  int32_t operator()(Record& /*record*/, uint32_t /*op*/) const {
    return OBJECT_ERROR_INVALID;
  }
};

#endif  // TESK_COUNTED_OBJECT_H_
