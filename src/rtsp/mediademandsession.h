// The demand session of one payload format. Event-loop thread, except signalNewFrame().
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>

#include "rtsp/livedemandsession.h"

namespace kavo::impl {

// Codec defines the format's Source and Sink, its default bitrate in kbit/s for the SDP's
// bandwidth line, and whether all its frames are key frames.
template <class Codec>
class MediaDemandSession : public LiveDemandSession {
 public:
  // The queue has the parameter sets for the SDP. kilobits is the bitrate that the host states.
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
    SmallOutPacketBuffer const small;
    return Codec::Sink::createNew(envir(), groupsock, payloadType, viewers(), parameterSets);
  }
};

}  // namespace kavo::impl
