// The demand session of one payload format. Event-loop thread, but for signalNewFrame().
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "rtsp/livedemandsession.h"

namespace kavo::impl {

// Codec names the format's Source and Sink, its usual bitrate in kbit/s, for the SDP's bandwidth
// line, and whether all of its frames are key frames.
template <class Codec>
class MediaDemandSession : public LiveDemandSession {
 public:
  // The encoder's parameter sets, in Annex B form, are for the SDP; not every format has them.
  static MediaDemandSession* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                       std::span<std::uint8_t const> parameterSets = {},
                                       DeliveryContext const& context = {}) KAVO_REQUIRES(eventLoopRole) {
    return new MediaDemandSession(env, std::move(handler), parameterSets, context);
  }

  bool hasKeyFramesOnly() const override { return Codec::keyFramesOnly; }

 protected:
  MediaDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                     std::span<std::uint8_t const> parameterSets, DeliveryContext const& context)
      KAVO_REQUIRES(eventLoopRole)
      : LiveDemandSession(env, std::move(handler), true, Codec::kilobits, context),
        m_ParameterSets(parameterSets.begin(), parameterSets.end()) {}

  FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) override {
    eventLoopRole.assertHeld();
    return Codec::Source::createNew(envir(), std::move(handler));
  }
  void wakeSource(TaskScheduler* scheduler, FramedSource* source) override {
    Codec::Source::signalNewFrameData(scheduler, source);
  }
  LiveSink* newSink(Groupsock* groupsock, unsigned char payloadType) override {
    eventLoopRole.assertHeld();
    return Codec::Sink::createNew(envir(), groupsock, payloadType, viewers(), m_ParameterSets);
  }

 private:
  std::vector<std::uint8_t> const m_ParameterSets;
};

}  // namespace kavo::impl
