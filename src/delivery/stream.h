// What the viewers of a stream need of it. Event-loop thread.
#pragma once

#include <chrono>

#include "eventloop/eventlooprole.h"
#include "rtp/rtcp.h"

namespace kavo::impl {

class Stream {
 public:
  // True: a viewer needs a key frame; false: none does any more.
  virtual void wantKeyFrame(bool wanted) KAVO_REQUIRES(eventLoopRole) = 0;
  // Whether a viewer can begin with any frame.
  virtual bool hasKeyFramesOnly() const = 0;
  // How old a frame may be that a joining viewer begins with.
  virtual std::chrono::steady_clock::duration freshness() const = 0;
  // Of this moment.
  virtual SenderInfo senderInfo() KAVO_REQUIRES(eventLoopRole) = 0;

 protected:
  ~Stream() = default;
};

}  // namespace kavo::impl
