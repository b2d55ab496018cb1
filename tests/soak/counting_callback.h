// A client callback object that counts what the daemon does to it and
// answers deliveries as told: at once, late, or only when the process is
// about to end (silent).
#ifndef TESK_TESTS_SOAK_COUNTING_CALLBACK_H_
#define TESK_TESTS_SOAK_COUNTING_CALLBACK_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include <tesk/object.h>

namespace tesk_soak {

class CountingCallback {
 public:
  // delay_ms < 0: silent until ReleaseSilent().
  explicit CountingCallback(int delay_ms = 0) : delay_ms_(delay_ms) {}
  CountingCallback(const CountingCallback&) = delete;
  CountingCallback& operator=(const CountingCallback&) = delete;

  // The object lives as long as this callback; it holds no reference count
  // of its own, so that retains and releases can be compared at the end.
  Object object() { return Object{Invoke, this}; }

  // True once a delivery arrived (waits at most `timeout`).
  bool WaitForDelivery(std::chrono::milliseconds timeout);
  // True once the peer gave back every reference it took.
  bool WaitForBalance(std::chrono::milliseconds timeout);

  int retains() const { return retains_; }
  int releases() const { return releases_; }
  int deliveries() const { return deliveries_; }

  // Lets every silent callback of the process answer.
  static void ReleaseSilent();

 private:
  static int32_t Invoke(void* context, uint32_t op, ObjectArg* args, uint32_t counts);

  const int delay_ms_;
  std::atomic<int> retains_{0};
  std::atomic<int> releases_{0};
  std::atomic<int> deliveries_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
};

}  // namespace tesk_soak

#endif  // TESK_TESTS_SOAK_COUNTING_CALLBACK_H_
