// unique_ptr for C library objects, released by a free function. Any thread.
#pragma once

#include <memory>

namespace kavo::impl {

// Calls a function that takes the pointer, or (as FFmpeg's *_free do) its address.
template <auto Function>
struct Deleter {
  template <class T>
  void operator()(T* object) const {
    if constexpr (requires { Function(&object); }) {
      Function(&object);
    } else {
      Function(object);
    }
  }
};

template <class T, auto Function>
using CPtr = std::unique_ptr<T, Deleter<Function>>;

}  // namespace kavo::impl
