// Calls out of the event loop, from which no exception comes back: above all,
// memory may run out in any of them. Event-loop thread.
#pragma once

#include "base/threadannotations.h"

namespace kavo::impl {

// What the call was for (a request, a viewer, a frame) is given up; whoever can
// do something about it has caught the exception before. False if there was one.
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
