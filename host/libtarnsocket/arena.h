// Memory for the buffers of one received call. Grown without zero-filling
// (only the slack behind each buffer is cleared), and kept by its thread
// between calls up to kKeptArena, so that multi-megabyte calls reuse their
// pages instead of mapping and faulting them in every time.
#ifndef TARNSOCKET_ARENA_H_
#define TARNSOCKET_ARENA_H_

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <new>
#include <utility>

namespace tarnsocket {

constexpr size_t kKeptArena = 16u << 20;

class Arena {
 public:
  // False if the memory cannot be had; the contents are not kept.
  bool Reserve(uint64_t size) {
    if (size <= size_) return true;
    data_.reset(new (std::nothrow) uint8_t[size]);
    size_ = data_ != nullptr ? size : 0;
    return data_ != nullptr;
  }
  uint8_t* data() { return data_.get(); }
  uint64_t size() const { return size_; }
  void Swap(Arena& other) {
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
  }
  // Keeps the larger of the two in this, within kKeptArena.
  void KeepLarger(Arena& other) {
    if (other.size_ > size_ && other.size_ <= kKeptArena) Swap(other);
    if (size_ > kKeptArena) *this = Arena();
  }

 private:
  std::unique_ptr<uint8_t[]> data_;
  uint64_t size_ = 0;
};

}  // namespace tarnsocket

#endif  // TARNSOCKET_ARENA_H_
