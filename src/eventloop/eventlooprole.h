// The right to call live555: held by the event-loop thread while it runs the
// loop, and by a host thread while no loop runs and it does loop work itself.
#pragma once

#include "base/noncopyable.h"
#include "base/threadannotations.h"

namespace kavo::impl {

class KAVO_CAPABILITY("role") EventLoopRole {
 public:
  // Takes the role for the calling thread until the end of the scope.
  class KAVO_SCOPED_CAPABILITY Holder : NonCopyable {
   public:
    explicit Holder(EventLoopRole& role) KAVO_ACQUIRE(role);
    ~Holder() KAVO_RELEASE();

   private:
    bool m_Before;
  };

  // Whether the calling thread holds the role.
  bool isHeld() const;

  // Comes first in every function that live555 calls back: debug builds abort when
  // the calling thread does not hold the role.
  void assertHeld() const KAVO_ASSERTS(this);
};

// One role for the process: a thread holds it or does not.
extern EventLoopRole eventLoopRole;

}  // namespace kavo::impl
