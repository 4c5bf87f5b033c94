#include "rtsp/jpegdemandsession.h"

#include <utility>

#include "rtsp/jpegsink.h"
#include "rtsp/jpegsource.h"

namespace kavo {

namespace {
constexpr unsigned estimatedKilobits = 64;
}

JpegDemandSession* JpegDemandSession::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) {
  return new JpegDemandSession(env, std::move(handler));
}

JpegDemandSession::JpegDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
    : LiveDemandSession(env, std::move(handler), true, estimatedKilobits) {}

FramedSource* JpegDemandSession::openSource(std::shared_ptr<FrameSourceHandler> handler) {
  eventLoopRole.assertHeld();
  return JpegSource::createNew(envir(), std::move(handler));
}

// Every picture is one to begin with. Of those queued before anybody played,
// only the newest is not stale.
bool JpegDemandSession::admit(FramedSource*, bool first) {
  while (first && queue().size() > 1) {
    queue().pop();
  }
  return true;
}

void JpegDemandSession::wakeSource(TaskScheduler* scheduler, FramedSource* source) {
  JpegSource::signalNewFrameData(scheduler, source);
}

RTPSink* JpegDemandSession::createNewRTPSink(Groupsock* rtpGroupsock, unsigned char, FramedSource*) {
  eventLoopRole.assertHeld();
  auto* const sink = JpegSink::createNew(envir(), rtpGroupsock);
  sink->setPacketSizes(largestPacket, largestPacket);
  return sink;
}

}  // namespace kavo
