/*
 * The object invocation model: every service the daemon offers, and every
 * callback a client hands it, is an Object, an invoke function plus the
 * context it is called with. Plain C so that the IPC library and native
 * clients written in C share the very same types.
 */
#ifndef TESK_OBJECT_H_
#define TESK_OBJECT_H_

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

union ObjectArg;

typedef int32_t (*ObjectInvoke)(void* context, uint32_t op, union ObjectArg* args, uint32_t counts);

typedef struct Object {
  ObjectInvoke invoke;
  void* context;
} Object;

typedef struct ObjectBuf {
  void* ptr;
  uint64_t size;
} ObjectBuf;

/* One argument slot: a buffer or an object, depending on its place. */
typedef union ObjectArg {
  ObjectBuf b;
  Object o;
} ObjectArg;

/* Operation codes; only the low 16 bits of an op are significant. */
#define OBJECT_OP_METHOD 0u
#define OBJECT_OP_METHOD2 1u
#define OBJECT_OP_RETAIN 0xFFFEu
#define OBJECT_OP_RELEASE 0xFFFFu
#define OBJECT_OP_MASK 0xFFFFu

/* Result codes of served methods. */
#define OBJECT_OK 0
#define OBJECT_ERROR_NOT_STARTED 1
#define OBJECT_ERROR_INVALID 2

/*
 * The counts word: four 4-bit fields. The args array holds input buffers,
 * then output buffers, then input objects, then output objects.
 */
#define OBJECT_COUNTS(in_bufs, out_bufs, in_objs, out_objs)                           \
  ((uint32_t)(((in_bufs)&0xFu) | (((out_bufs)&0xFu) << 4) | (((in_objs)&0xFu) << 8) | \
              (((out_objs)&0xFu) << 12)))
#define OBJECT_COUNTS_IN_BUFS(c) ((unsigned)((c)&0xFu))
#define OBJECT_COUNTS_OUT_BUFS(c) ((unsigned)(((c) >> 4) & 0xFu))
#define OBJECT_COUNTS_IN_OBJS(c) ((unsigned)(((c) >> 8) & 0xFu))
#define OBJECT_COUNTS_OUT_OBJS(c) ((unsigned)(((c) >> 12) & 0xFu))
#define OBJECT_COUNTS_TOTAL(c)                                                       \
  (OBJECT_COUNTS_IN_BUFS(c) + OBJECT_COUNTS_OUT_BUFS(c) + OBJECT_COUNTS_IN_OBJS(c) + \
   OBJECT_COUNTS_OUT_OBJS(c))

#ifdef __cplusplus
}  // extern "C"

constexpr Object kNullObject{nullptr, nullptr};

inline bool IsNullObject(const Object& o) {
  return o.invoke == nullptr;
}

// Calls an object that a client handed over. A peer can hand over the null
// object, so a call on it does nothing instead of jumping to address zero.
// Results of calls on client objects are never examined.
inline void ObjectCall(const Object& o, uint32_t op, ObjectArg* args, uint32_t counts) {
  if (o.invoke != nullptr) o.invoke(o.context, op, args, counts);
}
inline void ObjectRetain(const Object& o) {
  ObjectCall(o, OBJECT_OP_RETAIN, nullptr, 0);
}
inline void ObjectRelease(const Object& o) {
  ObjectCall(o, OBJECT_OP_RELEASE, nullptr, 0);
}
#endif

#endif  // TESK_OBJECT_H_
