// Delivers frames from a stream's queue to the sink unchanged. Event-loop thread, except
// signalNewFrameData().
#pragma once

#include <cstring>
#include <memory>
#include <utility>

#include "rtsp/queuedsource.h"

namespace kavo::impl {

class WholeFrameSource : public QueuedSource<FramedSource> {
 public:
  static WholeFrameSource* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole) {
    return new WholeFrameSource(env, std::move(handler));
  }

 protected:
  using QueuedSource::QueuedSource;

  void copyFrame(AVPacket const& packet, unsigned deliverable) override {
    fFrameSize = deliverable;
    std::memcpy(fTo, packet.data, deliverable);
  }
};

using H264Source = WholeFrameSource;

}  // namespace kavo::impl
