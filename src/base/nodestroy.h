// Objects that outlive static destruction, because other threads may still use them. Any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "base/noncopyable.h"

namespace kavo::impl {

// An object whose destructor never runs.
template <class T>
class NoDestroy : NonCopyable {
 public:
  template <class... Arguments>
  explicit NoDestroy(Arguments&&... arguments) {
    new (m_Bytes) T(std::forward<Arguments>(arguments)...);
  }

  T& operator*() const { return *std::launder(reinterpret_cast<T*>(m_Bytes)); }
  T* operator->() const { return &**this; }

 private:
  alignas(T) mutable std::byte m_Bytes[sizeof(T)];
};

// Allocates from a static block and never frees, for containers that are filled when
// the library is loaded and do not change afterwards.
template <class T>
struct InPlaceAllocator {
  using value_type = T;

  InPlaceAllocator() = default;
  template <class U>
  explicit(false) InPlaceAllocator(InPlaceAllocator<U> const&) {}

  T* allocate(std::size_t count) {
    constexpr std::size_t room = 4096;
    alignas(std::max_align_t) static std::byte block[room];
    static std::size_t used = 0;
    std::size_t const size = count * sizeof(T);
    if (size > room - used) {
      throw std::bad_alloc();
    }
    T* const place = reinterpret_cast<T*>(block + used);
    used += (size + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);
    return place;
  }
  void deallocate(T*, std::size_t) {}

  bool operator==(InPlaceAllocator const&) const = default;
};

}  // namespace kavo::impl
