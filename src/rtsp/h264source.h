// Delivers H.264 access units from a stream's queue to the sink. Event-loop thread, but for
// signalNewFrameData().
#pragma once

#include <cstring>
#include <memory>
#include <utility>

#include "rtsp/queuedsource.h"

namespace kavo::impl {

class H264Source : public QueuedSource<FramedSource> {
 public:
  static H264Source* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole) {
    return new H264Source(env, std::move(handler));
  }

 protected:
  using QueuedSource::QueuedSource;

  void copyFrame(AVPacket const& packet, unsigned deliverable) override {
    fFrameSize = deliverable;
    std::memcpy(fTo, packet.data, deliverable);
  }
};

}  // namespace kavo::impl
