#include "rtsp/jpegdemandsession.h"

#include <utility>

#include "rtsp/jpegsink.h"
#include "rtsp/jpegsource.h"

namespace kavo::impl {

namespace {
constexpr unsigned jpegKilobits = 64;
}

JpegDemandSession* JpegDemandSession::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                                std::span<std::uint8_t const> /*parameterSets*/,
                                                Delivery const& delivery) {
  return new JpegDemandSession(env, std::move(handler), delivery);
}

JpegDemandSession::JpegDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                     Delivery const& delivery)
    : LiveDemandSession(env, std::move(handler), true, jpegKilobits, delivery) {}

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
