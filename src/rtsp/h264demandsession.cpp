#include "rtsp/h264demandsession.h"

#include <utility>

#include "rtsp/h264sink.h"
#include "rtsp/h264source.h"

namespace kavo::impl {

namespace {
constexpr unsigned h264Kilobits = 1048576;
}

H264DemandSession* H264DemandSession::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                                std::span<std::uint8_t const> parameterSets, Delivery const& delivery) {
  return new H264DemandSession(env, std::move(handler), parameterSets, delivery);
}

H264DemandSession::H264DemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                     std::span<std::uint8_t const> parameterSets, Delivery const& delivery)
    : LiveDemandSession(env, std::move(handler), true, h264Kilobits, delivery),
      m_ParameterSets(parameterSets.begin(), parameterSets.end()) {}

FramedSource* H264DemandSession::openSource(std::shared_ptr<FrameSourceHandler> handler) {
  eventLoopRole.assertHeld();
  return H264Source::createNew(envir(), std::move(handler));
}

void H264DemandSession::wakeSource(TaskScheduler* scheduler, FramedSource* source) {
  H264Source::signalNewFrameData(scheduler, source);
}

RTPSink* H264DemandSession::createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                                             FramedSource*) {
  eventLoopRole.assertHeld();
  return H264Sink::createNew(envir(), rtpGroupsock, rtpPayloadTypeIfDynamic, viewers(), m_ParameterSets);
}

}  // namespace kavo::impl
