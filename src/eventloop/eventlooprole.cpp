#include "eventloop/eventlooprole.h"

#include <cassert>

namespace kavo::impl {

namespace {
// Has no destructor, which would keep the library from being unloaded; and is in the static
// part of thread-local memory, because the loader ends the process if it cannot allocate the
// dynamic part.
[[gnu::tls_model("initial-exec")]] constinit thread_local bool t_Held = false;
}  // namespace

constinit EventLoopRole eventLoopRole;

EventLoopRole::Holder::Holder(EventLoopRole&) : m_Before(t_Held) { t_Held = true; }

EventLoopRole::Holder::~Holder() { t_Held = m_Before; }

bool EventLoopRole::isHeld() const { return t_Held; }

void EventLoopRole::assertHeld() const { assert(t_Held && "live555 is called on the event-loop thread only"); }

}  // namespace kavo::impl
