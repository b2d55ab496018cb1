// Arenas of received calls kept for reuse by the whole process, so that
// large calls do not map and fault in fresh pages every time. The total
// kept is bounded (KeptBufferBytes), the most recently used is reused
// first, and arenas idle for kBufferIdle are given back to the kernel.
#ifndef TARNSOCKET_BUFFER_POOL_H_
#define TARNSOCKET_BUFFER_POOL_H_

#include <stdint.h>

#include <chrono>
#include <mutex>
#include <vector>

#include "arena.h"
#include "clock.h"

namespace tarnsocket {

constexpr std::chrono::milliseconds kBufferIdle{2000};

class BufferPool {
 public:
  static BufferPool& Instance();

  // An arena of at least size bytes; false if the memory cannot be had.
  bool Take(uint64_t size, Arena* out);
  // Keeps a mapped arena while the total stays within the budget, dropping
  // the least recently used ones to make room.
  void Give(Arena arena);
  // Drops what has been idle too long; true while anything is kept.
  bool Trim(Clock::time_point now);
  uint64_t kept();

 private:
  struct Kept {
    Arena arena;
    Clock::time_point used;
  };

  std::mutex mutex_;
  std::vector<Kept> kept_;  // least recently used first
  uint64_t total_ = 0;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_BUFFER_POOL_H_
