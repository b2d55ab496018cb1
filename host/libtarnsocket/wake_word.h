// A word a waiting caller sleeps on (a futex). What the caller waits for is
// guarded by a lock; whoever changes it bumps the word under that lock and
// may wake the caller after letting the lock go, so that on a busy core the
// caller does not run only to block on the lock its waker still holds.
// Waking passes only the word's address to the kernel, never touches it, so
// the caller may already have seen the change and gone.
#ifndef TARNSOCKET_WAKE_WORD_H_
#define TARNSOCKET_WAKE_WORD_H_

#include <stdint.h>

#include <atomic>

#include "clock.h"

namespace tarnsocket {

class WakeWord {
 public:
  // Under the lock: what a sleeper compares against.
  uint32_t Seen() const { return word_.load(std::memory_order_relaxed); }
  // Under the lock: the state the sleeper waits on changed.
  void Bump() { word_.fetch_add(1, std::memory_order_relaxed); }
  // Outside the lock: sleeps while the word is still `seen`, at most until
  // `until`. It may return early; the caller looks again under the lock.
  void Sleep(uint32_t seen, Clock::time_point until);
  // After Bump, under the lock or after it: wakes the sleeper.
  void Wake() { Wake(&word_); }
  static void Wake(std::atomic<uint32_t>* word);
  std::atomic<uint32_t>* address() { return &word_; }

 private:
  std::atomic<uint32_t> word_{0};
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_WAKE_WORD_H_
