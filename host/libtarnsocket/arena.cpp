#include "arena.h"

#include <stdint.h>
#include <sys/mman.h>

#include <new>
#include <utility>

#include "frame.h"

namespace tarnsocket {
namespace {

constexpr size_t kPage = 4096;
constexpr std::align_val_t kAlign{static_cast<size_t>(kBufferAlign)};

}  // namespace

Arena::Arena(Arena&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)), capacity_(std::exchange(other.capacity_, 0)) {}

Arena& Arena::operator=(Arena&& other) noexcept {
  if (this != &other) {
    Free();
    data_ = std::exchange(other.data_, nullptr);
    capacity_ = std::exchange(other.capacity_, 0);
  }
  return *this;
}

bool Arena::Reserve(uint64_t size) {
  if (size <= capacity_) return true;
  Free();
  if (size > SIZE_MAX - kPage) return false;
  if (size < kMappedArena) {
    // Buffers are promised kBufferAlign alignment, more than malloc gives on
    // 32-bit targets. Freed by Free() with the mapped case beside it.
    data_ =
        static_cast<uint8_t*>(::operator new[](static_cast<size_t>(size), kAlign, std::nothrow));
    if (data_ != nullptr) capacity_ = static_cast<size_t>(size);
  } else {
    const size_t length = (static_cast<size_t>(size) + kPage - 1) & ~(kPage - 1);
    void* map = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map != MAP_FAILED) {
      data_ = static_cast<uint8_t*>(map);
      capacity_ = length;
    }
  }
  return data_ != nullptr;
}

void Arena::Free() {
  if (data_ == nullptr) return;
  if (mapped()) {
    munmap(data_, capacity_);
  } else {
    ::operator delete[](data_, kAlign);
  }
  data_ = nullptr;
  capacity_ = 0;
}

}  // namespace tarnsocket
