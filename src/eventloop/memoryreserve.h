// Memory reserved for the event loop. live555 does not survive a failing `new`: an
// exception leaves entries in its tables that crash it later, and its destructors
// allocate. On the event-loop thread, a failing `new` draws on this reserve and
// retries.
#pragma once

#include <cstddef>

#include "base/noncopyable.h"
#include "base/threadannotations.h"
#include "eventloop/eventlooprole.h"

namespace kavo::impl {

// One at a time. Installs a new handler, which passes allocations of other threads
// on to the handler installed before.
class MemoryReserve : NonCopyable {
 public:
  // Throws std::bad_alloc when there is no memory for it.
  MemoryReserve();
  ~MemoryReserve();

  // Replenishes what was used; false while there is no memory for it.
  static bool refill() KAVO_REQUIRES(eventLoopRole);
};

}  // namespace kavo::impl
