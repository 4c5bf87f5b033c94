// The demand session of one payload format. Event-loop thread, but for signalNewFrame().
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "rtsp/livedemandsession.h"

namespace kavo::impl {

// Codec names the format's Source and Sink, its usual bitrate in kbit/s, for the SDP's bandwidth
// line, and whether all of its frames are key frames.
template <class Codec>
class MediaDemandSession : public LiveDemandSession {
 public:
  // The queue knows the parameter sets for the SDP. kilobits: what the host says of its bitrate.
  static MediaDemandSession* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                       DeliveryContext const& context = {}, unsigned kilobits = Codec::kilobits)
      KAVO_REQUIRES(eventLoopRole) {
    return new MediaDemandSession(env, std::move(handler), context, kilobits);
  }

  bool hasKeyFramesOnly() const override { return Codec::keyFramesOnly; }

 protected:
  MediaDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler, DeliveryContext const& context,
                     unsigned kilobits) KAVO_REQUIRES(eventLoopRole)
      : LiveDemandSession(env, std::move(handler), true, kilobits, context) {}

  FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) override {
    eventLoopRole.assertHeld();
    return Codec::Source::createNew(envir(), std::move(handler));
  }
  void wakeSource(TaskScheduler* scheduler, FramedSource* source) override {
    Codec::Source::signalNewFrameData(scheduler, source);
  }
  LiveSink* newSink(Groupsock* groupsock, unsigned char payloadType,
                    std::span<std::uint8_t const> parameterSets) override {
    eventLoopRole.assertHeld();
    return Codec::Sink::createNew(envir(), groupsock, payloadType, viewers(), parameterSets);
  }
};

}  // namespace kavo::impl
