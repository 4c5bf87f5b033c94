// TCP's own estimate of a connection's path. Event-loop thread.
#pragma once

#include <chrono>

namespace kavo::impl {

// How long until the path takes another frame; 0: now. More than it holds and can send
// in a moment would only queue in the network, where it cannot be dropped: the viewer
// would see old frames, and a small queue would lose some.
std::chrono::microseconds untilPathTakesMore(int socket);

}  // namespace kavo::impl
