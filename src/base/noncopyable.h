// The base of classes whose objects are neither copied nor moved. Any thread.
#pragma once

namespace kavo::impl {

class NonCopyable {
 public:
  NonCopyable(NonCopyable const&) = delete;
  NonCopyable& operator=(NonCopyable const&) = delete;

 protected:
  NonCopyable() = default;
  ~NonCopyable() = default;
};

}  // namespace kavo::impl
