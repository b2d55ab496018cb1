// What the IPC tests serve: a root object with one op per scenario on a Unix
// socket of its own, and objects that count what happens to them.
#ifndef TESK_TESTS_IPC_HARNESS_H_
#define TESK_TESTS_IPC_HARNESS_H_

#include <stdint.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <tesk/object.h>

#include "frame.h"
#include "gtest/gtest.h"
#include "tarnsocket/tarn_ipc.h"

namespace tarnsocket::ipc_test {

using Bytes = std::vector<uint8_t>;

// Every op returns -1 unless each buffer it is given is aligned and followed
// by zero slack.
enum Op : uint32_t {
  kOpChecksum,  // in bufs: their Checksum
  kOpStore,     // 1 in obj: kept, retained, as the callback; the null object drops it
  kOpEcho,      // 1 in buf [1 in obj]: calls the object, or the callback, with the buffer
  kOpReturn,    // 1 in buf (u32 n), 1 out obj: `many[n % 4]`
  kOpBlock,     // returns once `unblocked` is set
};

inline void Pause() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

// Of the buffers' sizes and contents.
inline int32_t Checksum(const ObjectArg* args, unsigned bufs) {
  std::string all;
  for (const ObjectArg* arg = args; arg != args + bufs; ++arg) {
    all += std::to_string(arg->b.size) + ":" +
           std::string(static_cast<char*>(arg->b.ptr), arg->b.size);
  }
  return static_cast<int32_t>(std::hash<std::string>{}(all) % 0x80000000u);
}

inline ObjectArg Buf(const void* data, uint64_t size) {
  return ObjectArg{ObjectBuf{const_cast<void*>(data), size}};
}

inline ObjectArg Obj(Object object) {
  ObjectArg arg;
  arg.o = object;
  return arg;
}

inline int32_t Call(Object target, uint32_t op, ObjectArg* args = nullptr, uint32_t counts = 0) {
  return target.invoke(target.context, op, args, counts);
}

inline int32_t Store(Object root, Object callback) {
  ObjectArg args[1] = {Obj(callback)};
  return Call(root, kOpStore, args, OBJECT_COUNTS(0, 0, 1, 0));
}

// Any op but retain and release runs on_call, or returns 7 without one.
struct Counted {
  std::atomic<int> retains{0}, releases{0}, calls{0};
  std::function<int32_t(uint32_t op, ObjectArg* args, uint32_t counts)> on_call;
  std::function<void()> on_release;  // runs before the release is counted

  Object AsObject() { return Object{&Counted::Invoke, this}; }
  int Held() const { return retains - releases; }
  // The test's own timeout catches a hang.
  void AwaitReleases(int n) const {
    while (releases < n) Pause();
  }
  // Waits until every retain so far was released; below 0 if released too often.
  int Settle() const {
    AwaitReleases(retains);
    return Held();
  }
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts) {
    Counted* self = static_cast<Counted*>(context);
    switch (op & OBJECT_OP_MASK) {
      case OBJECT_OP_RETAIN:
        ++self->retains;
        return OBJECT_OK;
      case OBJECT_OP_RELEASE:
        if (self->on_release) self->on_release();
        ++self->releases;
        return OBJECT_OK;
      default:
        ++self->calls;
        return self->on_call ? self->on_call(op & OBJECT_OP_MASK, args, counts) : 7;
    }
  }
};

// Sets a limit for the connections made while it lives.
struct ScopedEnv {
  ScopedEnv(const char* variable, const char* value) : name(variable) { setenv(name, value, 1); }
  ~ScopedEnv() { unsetenv(name); }
  const char* name;
};

// `root`, served on a socket of its own, counts references to itself and
// runs the ops.
struct Served {
  Served() {
    static std::atomic<int> count{0};
    path = "/tmp/ipc_test_" + std::to_string(getpid()) + "_" + std::to_string(++count);
    unlink(path.c_str());
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    root.on_call = [this](uint32_t op, ObjectArg* args, uint32_t counts) {
      return Handle(op, args, counts);
    };
    service = TarnIPC_startServiceOnSocket(fd, &Counted::Invoke, &root);
    EXPECT_NE(service, nullptr);
  }
  ~Served() {
    TarnIPC_stopService(service);
    TarnIPC_join(service);
    ObjectRelease(Stored());
    close(fd);
    unlink(path.c_str());
  }
  Object Connect() {
    Object client_root = kNullObject;
    EXPECT_EQ(TarnIPC_connect(path.c_str(), &client_root), 0);
    return client_root;
  }
  // A connection that speaks the protocol by hand, starting with `bytes`.
  int RawConnect(const Bytes& bytes) {
    const int raw = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(raw, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(write(raw, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    return raw;
  }
  Object Stored() {
    std::lock_guard<std::mutex> lock(mutex);
    return stored;
  }

  int32_t Handle(uint32_t op, ObjectArg* args, uint32_t counts) {
    const unsigned bufs = OBJECT_COUNTS_IN_BUFS(counts);
    for (unsigned i = 0; i < bufs; ++i) {
      const uint8_t* end = static_cast<const uint8_t*>(args[i].b.ptr) + args[i].b.size;
      if (reinterpret_cast<uintptr_t>(args[i].b.ptr) % kBufferAlign != 0 ||
          Bytes(end, end + kBufferSlack) != Bytes(kBufferSlack, 0)) {
        return -1;
      }
    }
    switch (op) {
      case kOpChecksum:
        return Checksum(args, bufs);
      case kOpStore: {
        ObjectRetain(args[0].o);
        std::unique_lock<std::mutex> lock(mutex);
        const Object old = stored;
        stored = args[0].o;
        lock.unlock();
        ObjectRelease(old);
        return OBJECT_OK;
      }
      case kOpEcho: {
        const Object target = OBJECT_COUNTS_IN_OBJS(counts) == 1 ? args[1].o : Stored();
        ObjectArg echo[1] = {args[0]};
        return IsNullObject(target) ? OBJECT_ERROR_INVALID : Call(target, 0, echo, 1);
      }
      case kOpReturn:
        args[1].o = many[*static_cast<uint32_t*>(args[0].b.ptr) % 4].AsObject();
        ObjectRetain(args[1].o);
        return OBJECT_OK;
      case kOpBlock:
        blocked = true;
        while (!unblocked) Pause();
        return OBJECT_OK;
      default:
        return OBJECT_ERROR_INVALID;
    }
  }

  Counted root, many[4];
  std::string path;
  sockaddr_un address{AF_UNIX, {}};
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  void* service = nullptr;
  std::mutex mutex;
  Object stored = kNullObject;
  std::atomic<bool> blocked{false}, unblocked{false};
};

}  // namespace tarnsocket::ipc_test

#endif  // TESK_TESTS_IPC_HARNESS_H_
