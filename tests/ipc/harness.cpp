#include "harness.h"

#include <string.h>

namespace ipc_test {

void FillPattern(uint8_t* data, uint64_t size, uint32_t seed) {
  uint32_t x = seed * 2654435761u + 1;
  for (uint64_t i = 0; i < size; ++i) {
    x = x * 1103515245u + 12345u;
    data[i] = static_cast<uint8_t>(x >> 16);
  }
}

bool CheckPattern(const uint8_t* data, uint64_t size, uint32_t seed) {
  std::vector<uint8_t> expected(size);
  FillPattern(expected.data(), size, seed);
  return size == 0 || memcmp(expected.data(), data, size) == 0;
}

int32_t Checksum(const ObjectArg* args, unsigned bufs) {
  uint32_t sum = 0;
  for (unsigned i = 0; i < bufs; ++i) {
    const uint8_t* bytes = static_cast<const uint8_t*>(args[i].b.ptr);
    for (uint64_t j = 0; j < args[i].b.size; ++j) sum = sum * 31 + bytes[j];
    sum = sum * 31 + static_cast<uint32_t>(args[i].b.size);
  }
  return static_cast<int32_t>(sum & 0x7fffffff);
}

void Counted::WaitForReleases(int n) {
  std::unique_lock<std::mutex> lock(mutex);
  changed.wait(lock, [&] { return releases.load() >= n; });
}

int32_t Counted::Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  Counted* self = static_cast<Counted*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
      ++self->retains;
      return OBJECT_OK;
    case OBJECT_OP_RELEASE: {
      if (self->on_release) self->on_release();
      std::lock_guard<std::mutex> lock(self->mutex);
      ++self->releases;
      self->changed.notify_all();
      return OBJECT_OK;
    }
    default:
      ++self->calls;
      return self->on_call ? self->on_call(args, counts) : 7;
  }
}

Harness::Harness() = default;

Object Harness::Stored() {
  std::lock_guard<std::mutex> lock(mutex_);
  return stored_;
}

void Harness::Unblock() {
  std::lock_guard<std::mutex> lock(mutex_);
  unblocked_ = true;
  cv_.notify_all();
}

void Harness::WaitBlocked() {
  std::unique_lock<std::mutex> lock(mutex_);
  cv_.wait(lock, [&] { return blocked_; });
}

int32_t Harness::Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
  Harness* self = static_cast<Harness*>(context);
  switch (op & OBJECT_OP_MASK) {
    case OBJECT_OP_RETAIN:
    case OBJECT_OP_RELEASE:
      return Counted::Invoke(&self->root_counts, op, args, counts);
    default:
      return self->Handle(op & OBJECT_OP_MASK, args, counts);
  }
}

int32_t Harness::Handle(uint32_t op, ObjectArg* args, uint32_t counts) {
  const unsigned bufs = OBJECT_COUNTS_IN_BUFS(counts);
  switch (op) {
    case kOpChecksum:
      return Checksum(args, bufs);
    case kOpStoreCallback: {
      if (counts != OBJECT_COUNTS(0, 0, 1, 0)) return OBJECT_ERROR_INVALID;
      ObjectRetain(args[0].o);
      Object old;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        old = stored_;
        stored_ = args[0].o;
      }
      if (!IsNullObject(old)) ObjectRelease(old);
      return OBJECT_OK;
    }
    case kOpDropStored: {
      Object old;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        old = stored_;
        stored_ = kNullObject;
      }
      if (!IsNullObject(old)) ObjectRelease(old);
      return OBJECT_OK;
    }
    case kOpGetCounted:
      if (counts != OBJECT_COUNTS(0, 0, 0, 1)) return OBJECT_ERROR_INVALID;
      ObjectRetain(counted.AsObject());
      args[0].o = counted.AsObject();
      return OBJECT_OK;
    case kOpReturnInput:
      if (counts != OBJECT_COUNTS(0, 0, 1, 1)) return OBJECT_ERROR_INVALID;
      ObjectRetain(args[0].o);
      args[1].o = args[0].o;
      return OBJECT_OK;
    case kOpCheckSlack:
      for (unsigned i = 0; i < bufs; ++i) {
        const uint8_t* bytes = static_cast<const uint8_t*>(args[i].b.ptr);
        for (uint64_t j = 0; j < 64; ++j) {
          if (bytes[args[i].b.size + j] != 0) return 1;
        }
      }
      return Checksum(args, bufs);
    case kOpBlock: {
      std::unique_lock<std::mutex> lock(mutex_);
      blocked_ = true;
      cv_.notify_all();
      cv_.wait(lock, [&] { return unblocked_; });
      return OBJECT_OK;
    }
    case kOpSendBig: {
      if (counts != 1 || args[0].b.size != 8) return OBJECT_ERROR_INVALID;
      uint64_t size;
      memcpy(&size, args[0].b.ptr, sizeof size);
      std::vector<uint8_t> data(size);
      FillPattern(data.data(), size, 2);
      Object stored = Stored();
      if (IsNullObject(stored)) return OBJECT_ERROR_INVALID;
      ObjectArg big[1];
      big[0].b = ObjectBuf{data.data(), size};
      return stored.invoke(stored.context, 0, big, 1);
    }
    case kOpNestedEcho: {
      if (counts != OBJECT_COUNTS(1, 0, 1, 0)) return OBJECT_ERROR_INVALID;
      ObjectArg inner[1];
      inner[0].b = args[0].b;
      return args[1].o.invoke(args[1].o.context, 0, inner, 1);
    }
    default:
      return OBJECT_ERROR_INVALID;
  }
}

}  // namespace ipc_test
