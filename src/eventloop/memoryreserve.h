// Memory reserved for the event loop. live555 does not survive a failing `new`: an
// exception leaves entries in its tables that crash it later, and its destructors
// allocate. On the event-loop thread, a failing `new` releases part of this reserve and
// retries.
#pragma once

#include <cstddef>

#include "base/noncopyable.h"
#include "base/threadannotations.h"
#include "eventloop/eventlooprole.h"

namespace kavo::impl {

// One object at a time. Installs a new-handler, which forwards the failures of other threads
// to the handler installed before.
class MemoryReserve : NonCopyable {
 public:
  // Throws std::bad_alloc if there is no memory for it.
  MemoryReserve();
  ~MemoryReserve();

  // Replaces what was used. False if there is no memory for it yet.
  static bool refill() KAVO_REQUIRES(eventLoopRole);
};

}  // namespace kavo::impl
