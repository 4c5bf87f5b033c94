// Event-loop calls from which no exception escapes: any of them may run out of memory.
// Event-loop thread.
#pragma once

#include "base/threadannotations.h"

namespace kavo::impl {

// False if the function threw: the request, viewer or frame that the call was for is lost.
// Code that can recover catches the exception itself.
template <class Function>
bool contained(Function const& function) noexcept KAVO_NO_ANALYSIS {
  try {
    function();
    return true;
  } catch (...) {
    return false;
  }
}

}  // namespace kavo::impl
