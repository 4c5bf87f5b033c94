// The right to call live555: the event-loop thread holds it while it runs the loop; a host
// thread holds it while no loop runs and it does the loop's work itself.
#pragma once

#include "base/noncopyable.h"
#include "base/threadannotations.h"

namespace kavo::impl {

class KAVO_CAPABILITY("role") EventLoopRole {
 public:
  // Holds the role for the calling thread until the end of the scope.
  class KAVO_SCOPED_CAPABILITY Holder : NonCopyable {
   public:
    explicit Holder(EventLoopRole& role) KAVO_ACQUIRE(role);
    ~Holder() KAVO_RELEASE();

   private:
    bool m_Before;
  };

  // Whether the calling thread holds the role.
  bool isHeld() const;

  // The first call in every function that live555 calls back: debug builds abort if the
  // calling thread does not hold the role.
  void assertHeld() const KAVO_ASSERTS(this);
};

// The one role of the process.
extern EventLoopRole eventLoopRole;

}  // namespace kavo::impl
