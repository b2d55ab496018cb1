// The growable array of the location framework. The location library's own
// classes embed it and its factories take it by reference, so its field
// order and its storage discipline (non-throwing array new, array delete)
// are shared with that library; the host build of the library compiles
// against this same header.
//
// It never throws and never aborts: every failure is logged under the tag
// "vector" and reported by a return value, and the caller carries on.
#ifndef TESK_SCAN_VECTOR_H_
#define TESK_SCAN_VECTOR_H_

#include <algorithm>
#include <cstdint>
#include <new>

#include "ky_loc_fw/log.h"

namespace ky_loc_fw {

// Raw new[] and delete[] are the storage discipline shared with the location
// library, so the block is owned by a plain pointer on purpose.
// NOLINTBEGIN(cppcoreguidelines-owning-memory)
template <typename T>
class vector {
 public:
  static constexpr uint32_t kFirstCapacity = 64;

  vector() = default;
  // Copies are made by assignment only.
  vector(const vector&) = delete;

  virtual ~vector() {
    if (data != nullptr) {
      delete[] data;
      data = nullptr;
    }
    capacity = 0;
    count = 0;
  }

  // 0 on success, -1 when the first block could not be allocated, -2 when a
  // larger one could not.
  int push_back(const T& value) {
    if (data == nullptr) {
      // capacity is set before the attempt and not reset on failure; the
      // next call tests data, not capacity, and simply tries again.
      capacity = kFirstCapacity;
      data = new (std::nothrow) T[kFirstCapacity];
      if (data == nullptr) {
        log_error("vector", "insertion failed %d", -1);
        return -1;
      }
    } else if (count == capacity) {
      const uint32_t new_capacity = 2 * capacity;
      T* block = new (std::nothrow) T[new_capacity];
      if (block == nullptr) {
        log_error("vector", "insertion failed %d", -2);
        return -2;
      }
      std::copy_n(data, capacity, block);
      capacity = new_capacity;
      delete[] data;
      data = block;
    }
    data[count] = value;
    ++count;
    return 0;
  }

  // Room for `total` elements in one block, made now: the capacity becomes
  // the one that pushing up to `total` elements would have reached (64
  // doubled as often as needed), so that appends up to that many make no
  // block of their own. True when there is room. Should the block not be
  // had, nothing changes and nothing is logged: the appends that follow then
  // grow, and fail, exactly as they would have without it.
  bool reserve(uint64_t total) {
    if (total == 0 || (data != nullptr && total <= capacity)) return true;
    uint64_t target = data == nullptr ? kFirstCapacity : capacity;
    while (target < total) target *= 2;
    if (target > UINT32_MAX || target > SIZE_MAX / sizeof(T)) return false;
    return Regrow(static_cast<uint32_t>(target));
  }

  // n more elements, held from now on, for the caller to fill in place:
  // returns the first of them, in a block made as reserve makes it. Null,
  // with nothing changed and nothing logged, when n is 0 or the block cannot
  // be had; the caller then pushes the elements one by one instead, so that
  // failures are exactly push_back's.
  T* extend(uint64_t n) {
    if (n == 0 || n > UINT32_MAX || !reserve(count + n)) return nullptr;
    T* slots = data + count;
    count += static_cast<uint32_t>(n);  // reserve made room: the sum fits
    return slots;
  }

  // Appends values[0..n) as n calls of push_back would, with at most one new
  // block (see extend).
  int append(const T* values, uint32_t n) {
    if (n == 0) return 0;
    T* slots = extend(n);
    if (slots != nullptr) {
      std::copy_n(values, n, slots);
      return 0;
    }
    int result = 0;
    for (uint32_t i = 0; i < n; ++i) {
      const int one = push_back(values[i]);
      if (one != 0) result = one;
    }
    return result;
  }

  // Deep copy that keeps the source's spare room (its capacity, not count).
  vector& operator=(const vector& other) {
    if (&other == this) return *this;
    if (data != nullptr) delete[] data;
    data = nullptr;
    capacity = 0;
    count = 0;
    if (other.capacity == 0) return *this;

    T* block = new (std::nothrow) T[other.capacity];
    if (block == nullptr) {
      log_error("vector", "assignment failed %d", 2);  // always 2, whatever failed
      return *this;
    }
    for (uint32_t i = 0; i < other.count; ++i) block[i] = other.data[i];
    capacity = other.capacity;
    count = other.count;
    data = block;
    return *this;
  }

  // Bounds-checked: an index at or beyond count logs and yields element 0,
  // deliberately, so that a reader carries on instead of stopping.
  const T& operator[](uint32_t index) const { return data[Checked(index)]; }
  T& operator[](uint32_t index) { return data[Checked(index)]; }

  uint32_t getCount() const { return count; }
  uint32_t getCapacity() const { return capacity; }
  const T* getData() const { return data; }

 private:
  // Moves the elements into a new block of new_capacity slots; false, with
  // nothing changed, when it cannot be allocated.
  bool Regrow(uint32_t new_capacity) {
    T* block = new (std::nothrow) T[new_capacity];
    if (block == nullptr) return false;
    if (data != nullptr) {
      std::copy_n(data, count, block);
      delete[] data;
    }
    data = block;
    capacity = new_capacity;
    return true;
  }

  uint32_t Checked(uint32_t index) const {
    if (index < count) return index;
    log_error("vector", "index out of range\n");
    return 0;
  }

  T* data = nullptr;
  uint32_t capacity = 0;
  uint32_t count = 0;
};
// NOLINTEND(cppcoreguidelines-owning-memory)

}  // namespace ky_loc_fw

#endif  // TESK_SCAN_VECTOR_H_
