// Memory that is set aside for the event loop. live555 is not made for a failing
// `new`: an exception leaves its tables with entries that crash it later, and its
// destructors allocate. While live555 works, a `new` that fails takes from this
// reserve and tries again.
#pragma once

#include <cstddef>

#include "base/threadannotations.h"
#include "eventloop/eventlooprole.h"

namespace kavo::impl {

// One at a time. It sets the process's new handler, and calls the one that was set
// before for whatever is not the event loop's.
class MemoryReserve {
 public:
  // Throws std::bad_alloc when there is no memory for it.
  MemoryReserve();
  ~MemoryReserve();
  MemoryReserve(MemoryReserve const&) = delete;
  MemoryReserve& operator=(MemoryReserve const&) = delete;

  // Sets memory aside again for what was used up; false while there is none.
  static bool refill() KAVO_REQUIRES(eventLoopRole);
};

}  // namespace kavo::impl
