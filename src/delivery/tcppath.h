// TCP's own estimate of a connection's path. Event-loop thread.
#pragma once

#include <chrono>

namespace kavo::impl {

// How long until the path has room for another frame; 0: it has now. Data beyond what the
// path carries would only queue in the network, where it cannot be dropped: the viewer
// would see old frames, and small queues would lose packets.
std::chrono::microseconds untilPathTakesMore(int socket);

}  // namespace kavo::impl
