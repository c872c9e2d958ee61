// First-in first-out ring of pointers that doubles when it is full.
//
// Rule: a push that cannot get memory changes nothing, so what is in the ring stays in order. Not
// thread-safe; the owner brings the lock.
#ifndef PLATFORM_SRC_POINTER_RING_H
#define PLATFORM_SRC_POINTER_RING_H

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace platform {

class PointerRing {
 public:
  size_t size() const noexcept { return size_; }

  // Makes room for at least `entries` in all. False without memory.
  bool reserve(size_t entries) noexcept {
    size_t capacity = capacity_ == 0 ? kSmallest : capacity_;
    while (capacity < entries) capacity *= 2;
    return capacity == capacity_ || grow_to(capacity);
  }

  bool push(void* entry) noexcept {
    if (!reserve(size_ + 1)) return false;
    slots_[index(size_)] = entry;
    ++size_;
    return true;
  }

  // Takes the oldest entry; the ring must not be empty.
  void* pop() noexcept {
    void* oldest = slots_[head_];
    head_ = index(1);
    --size_;
    return oldest;
  }

  // Undoes the last push.
  void drop_newest() noexcept { --size_; }

 private:
  struct Free {
    void operator()(void** slots) const noexcept { std::free(slots); }
  };

  static constexpr size_t kSmallest = 8;  // entries; capacities are powers of two from here

  size_t index(size_t position) const noexcept { return (head_ + position) & (capacity_ - 1); }

  bool grow_to(size_t capacity) noexcept {
    auto* wider = static_cast<void**>(std::malloc(capacity * sizeof(void*)));
    if (wider == nullptr) return false;
    for (size_t i = 0; i < size_; ++i) wider[i] = slots_[index(i)];
    slots_.reset(wider);
    capacity_ = capacity;
    head_ = 0;
    return true;
  }

  std::unique_ptr<void*[], Free> slots_;
  size_t capacity_ = 0;
  size_t head_ = 0;
  size_t size_ = 0;
};

}  // namespace platform

#endif
