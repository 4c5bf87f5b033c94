// Calls made by the event loop that let no exception escape: above all, any of
// them may run out of memory. Event-loop thread.
#pragma once

#include "base/threadannotations.h"

namespace kavo::impl {

// The request, viewer or frame that the call was for is lost. False if the
// function threw; code that can recover has caught the exception before.
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
