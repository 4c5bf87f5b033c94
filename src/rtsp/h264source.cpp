#include "rtsp/h264source.h"

#include <cstring>
#include <utility>

namespace kavo::impl {

H264Source* H264Source::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) {
  return new H264Source(env, std::move(handler));
}

H264Source::H264Source(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
    : QueuedSource(env, std::move(handler)) {}

void H264Source::copyFrame(AVPacket const& packet, unsigned deliverable) {
  fFrameSize = deliverable;
  std::memcpy(fTo, packet.data, deliverable);
}

}  // namespace kavo::impl
