#include "buffer_pool.h"

#include <utility>

#include "peer_limits.h"

namespace tarnsocket {

BufferPool& BufferPool::Instance() {
  // Never destroyed: library threads may give arenas back during exit.
  static BufferPool* pool = new BufferPool();  // NOLINT(cppcoreguidelines-owning-memory)
  return *pool;
}

bool BufferPool::Take(uint64_t size, Arena* out) {
  if (size >= kMappedArena) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = kept_.size(); i-- > 0;) {
      if (kept_[i].arena.capacity() < size) continue;
      *out = std::move(kept_[i].arena);
      total_ -= out->capacity();
      kept_.erase(kept_.begin() + static_cast<std::ptrdiff_t>(i));
      return true;
    }
  }
  return out->Reserve(size);
}

void BufferPool::Give(Arena arena) {
  const uint64_t budget = KeptBufferBytes();
  if (!arena.mapped() || arena.capacity() > budget) return;
  std::vector<Arena> dropped;  // unmapped after the lock is let go
  std::lock_guard<std::mutex> lock(mutex_);
  total_ += arena.capacity();
  kept_.push_back(Kept{std::move(arena), Clock::now()});
  while (total_ > budget) {
    total_ -= kept_.front().arena.capacity();
    dropped.push_back(std::move(kept_.front().arena));
    kept_.erase(kept_.begin());
  }
}

bool BufferPool::Trim(Clock::time_point now) {
  std::vector<Kept> dropped;
  std::lock_guard<std::mutex> lock(mutex_);
  size_t idle = 0;
  while (idle < kept_.size() && now - kept_[idle].used >= kBufferIdle) {
    total_ -= kept_[idle].arena.capacity();
    ++idle;
  }
  dropped.assign(std::make_move_iterator(kept_.begin()),
                 std::make_move_iterator(kept_.begin() + static_cast<std::ptrdiff_t>(idle)));
  kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(idle));
  return !kept_.empty();
}

uint64_t BufferPool::kept() {
  std::lock_guard<std::mutex> lock(mutex_);
  return total_;
}

}  // namespace tarnsocket
