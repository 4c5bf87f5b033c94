// A descriptor that is closed with its owner. Any thread.
#pragma once

#include <unistd.h>

#include <utility>

namespace kavo::impl {

class UniqueFd {
 public:
  explicit UniqueFd(int descriptor = -1) : m_Descriptor(descriptor) {}
  ~UniqueFd() {
    if (m_Descriptor >= 0) {
      close(m_Descriptor);
    }
  }
  UniqueFd(UniqueFd&& other) noexcept : m_Descriptor(std::exchange(other.m_Descriptor, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(m_Descriptor, other.m_Descriptor);
    return *this;
  }

  int get() const { return m_Descriptor; }
  [[nodiscard]] int release() { return std::exchange(m_Descriptor, -1); }

 private:
  int m_Descriptor;
};

}  // namespace kavo::impl
