// What a stream provides to its viewers. Event-loop thread.
#pragma once

#include <chrono>

#include "eventloop/eventlooprole.h"
#include "rtp/rtcp.h"

namespace kavo::impl {

class Stream {
 public:
  // True if a viewer needs a key frame, false if none does any more.
  virtual void wantKeyFrame(bool wanted) KAVO_REQUIRES(eventLoopRole) = 0;
  // Whether a viewer can start with any frame.
  virtual bool hasKeyFramesOnly() const = 0;
  // The maximum age of the frame that a joining viewer starts with.
  virtual std::chrono::steady_clock::duration freshness() const = 0;
  // As of now.
  virtual SenderInfo senderInfo() KAVO_REQUIRES(eventLoopRole) = 0;

 protected:
  ~Stream() = default;
};

}  // namespace kavo::impl
