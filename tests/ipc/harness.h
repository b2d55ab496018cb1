// The objects that the IPC tests serve and pass around: a root with one op
// per scenario, and objects that count their retains, releases and calls.
#ifndef TESK_TESTS_IPC_HARNESS_H_
#define TESK_TESTS_IPC_HARNESS_H_

#include <stdint.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "service/object.h"

namespace ipc_test {

// Ops of the test root object.
enum RootOp : uint32_t {
  kOpChecksum = 0,   // in bufs: result = Checksum of all of them
  kOpStoreCallback,  // 1 in obj: retained and kept
  kOpDropStored,     // releases the kept callback
  kOpGetCounted,     // 1 out obj: the root's counted object
  kOpReturnInput,    // 1 in obj, 1 out obj: the same object back
  kOpCheckSlack,     // in bufs: Checksum if each is followed by 64 zero bytes, else 1
  kOpBlock,          // waits until Harness::Unblock
  kOpSendBig,        // 1 in buf (u64 size): delivers a patterned buffer to the kept callback
  kOpNestedEcho,     // 1 in buf, 1 in obj: calls the object with the buffer, returns its result
};

// Deterministic content for large transfers.
void FillPattern(uint8_t* data, uint64_t size, uint32_t seed);
bool CheckPattern(const uint8_t* data, uint64_t size, uint32_t seed);
int32_t Checksum(const ObjectArg* args, unsigned bufs);

// An object that counts what happens to it. op 0 calls `on_call`, if set.
struct Counted {
  std::atomic<int> retains{0};
  std::atomic<int> releases{0};
  std::atomic<int> calls{0};
  std::function<int32_t(ObjectArg*, uint32_t)> on_call;
  std::function<void()> on_release;  // runs before a release is counted
  std::mutex mutex;
  std::condition_variable changed;

  Object AsObject() { return Object{&Counted::Invoke, this}; }
  int Held() const { return retains.load() - releases.load(); }
  // Blocks until releases reaches n (no deadline: the test's own timeout
  // catches a hang).
  void WaitForReleases(int n);
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);
};

class Harness {
 public:
  Harness();
  Object Root() { return Object{&Harness::Invoke, this}; }

  Counted root_counts;  // retains and releases of the root itself
  Counted counted;      // handed out by kOpGetCounted

  // The callback kept by kOpStoreCallback (null object if none).
  Object Stored();
  void Unblock();
  void WaitBlocked();

 private:
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);
  int32_t Handle(uint32_t op, ObjectArg* args, uint32_t counts);

  std::mutex mutex_;
  std::condition_variable cv_;
  Object stored_{nullptr, nullptr};
  bool blocked_ = false;
  bool unblocked_ = false;
};

}  // namespace ipc_test

#endif  // TESK_TESTS_IPC_HARNESS_H_
