// Memory for the buffers of one received call, grown without zero-filling
// (only the slack behind each buffer is cleared). Large arenas are mapped
// directly, so that letting one go gives its pages back to the kernel at
// once: through the allocator they would stay in whichever thread's heap
// freed them.
#ifndef TARNSOCKET_ARENA_H_
#define TARNSOCKET_ARENA_H_

#include <stddef.h>
#include <stdint.h>

namespace tarnsocket {

constexpr size_t kMappedArena = size_t{64} << 10;

class Arena {
 public:
  Arena() = default;
  ~Arena() { Free(); }
  Arena(Arena&& other) noexcept;
  Arena& operator=(Arena&& other) noexcept;
  Arena(const Arena&) = delete;
  Arena& operator=(const Arena&) = delete;

  // False if the memory cannot be had; the contents are not kept.
  bool Reserve(uint64_t size);
  uint8_t* data() { return data_; }
  size_t capacity() const { return capacity_; }
  bool mapped() const { return capacity_ >= kMappedArena; }

 private:
  void Free();

  uint8_t* data_ = nullptr;
  size_t capacity_ = 0;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_ARENA_H_
