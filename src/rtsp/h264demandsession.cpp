#include "rtsp/h264demandsession.h"

#include <utility>

#include "rtsp/accessunitframer.h"
#include "rtsp/h264sink.h"
#include "rtsp/h264source.h"

namespace kavo {

namespace {
constexpr unsigned estimatedKilobits = 1048576;
}

H264DemandSession* H264DemandSession::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) {
  return new H264DemandSession(env, std::move(handler));
}

H264DemandSession::H264DemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
    : LiveDemandSession(env, std::move(handler), true, estimatedKilobits) {}

FramedSource* H264DemandSession::openSource(std::shared_ptr<FrameSourceHandler> handler) {
  eventLoopRole.assertHeld();
  auto const onKeyPicture = [this] {
    eventLoopRole.assertHeld();
    queue().keyFrameRequest().withdraw();
    letWaitingIn();
  };
  return AccessUnitFramer::createNew(envir(), H264Source::createNew(envir(), std::move(handler)), onKeyPicture);
}

bool H264DemandSession::admit(FramedSource* source, bool first) {
  eventLoopRole.assertHeld();
  queue().keyFrameRequest().ask();
  if (first) {
    // What was queued before anybody played is stale.
    queue().clear();
    static_cast<AccessUnitFramer*>(source)->awaitKeyPicture();
  }
  return first;
}

void H264DemandSession::wakeSource(TaskScheduler* scheduler, FramedSource* source) {
  H264Source::signalNewFrameData(scheduler, static_cast<AccessUnitFramer*>(source)->inputSource());
}

RTPSink* H264DemandSession::createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                                             FramedSource*) {
  eventLoopRole.assertHeld();
  auto* const sink = H264Sink::createNew(envir(), rtpGroupsock, rtpPayloadTypeIfDynamic);
  sink->setPacketSizes(largestPacket, largestPacket);
  return sink;
}

}  // namespace kavo
