#include "rtsp/jpegdemandsession.h"

#include <utility>

#include "rtsp/jpegsink.h"
#include "rtsp/jpegsource.h"

namespace kavo::impl {

namespace {
constexpr unsigned estimatedKilobits = 64;
}

JpegDemandSession* JpegDemandSession::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                                std::span<std::uint8_t const> /*parameterSets*/,
                                                Policy::Delivery const& policy) {
  return new JpegDemandSession(env, std::move(handler), policy);
}

JpegDemandSession::JpegDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                     Policy::Delivery const& policy)
    : LiveDemandSession(env, std::move(handler), true, estimatedKilobits, policy) {}

FramedSource* JpegDemandSession::openSource(std::shared_ptr<FrameSourceHandler> handler) {
  eventLoopRole.assertHeld();
  return JpegSource::createNew(envir(), std::move(handler));
}

void JpegDemandSession::wakeSource(TaskScheduler* scheduler, FramedSource* source) {
  JpegSource::signalNewFrameData(scheduler, source);
}

RTPSink* JpegDemandSession::createNewRTPSink(Groupsock* rtpGroupsock, unsigned char, FramedSource*) {
  eventLoopRole.assertHeld();
  return JpegSink::createNew(envir(), rtpGroupsock, viewers());
}

}  // namespace kavo::impl
