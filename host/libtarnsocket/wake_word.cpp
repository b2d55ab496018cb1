#include "wake_word.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <climits>

namespace tarnsocket {

void WakeWord::Sleep(uint32_t seen, Clock::time_point until) {
  // An absolute time on the monotonic clock (steady_clock's), as
  // FUTEX_WAIT_BITSET takes it.
  const auto since_epoch = until.time_since_epoch();
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_epoch);
  timespec at{};
  at.tv_sec = static_cast<time_t>(seconds.count());
  at.tv_nsec = static_cast<long>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(since_epoch - seconds).count());
  const bool forever = until == Clock::time_point::max();
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(&word_), FUTEX_WAIT_BITSET_PRIVATE, seen,
          forever ? nullptr : &at, nullptr, FUTEX_BITSET_MATCH_ANY);
}

void WakeWord::Wake(std::atomic<uint32_t>* word) {
  syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr,
          nullptr, 0);
}

}  // namespace tarnsocket
