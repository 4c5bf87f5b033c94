// Moves H.264 access units from a stream's queue to the framer. Event-loop
// thread, but for signalNewFrameData().
#pragma once

#include "rtsp/queuedsource.h"

namespace kavo::impl {

class H264Source : public QueuedSource<FramedSource> {
 public:
  static H264Source* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole);

 protected:
  H264Source(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole);

  void copyFrame(AVPacket const& packet, unsigned deliverable) override KAVO_REQUIRES(eventLoopRole);
};

}  // namespace kavo::impl
