// A stream of raw frames: connects transcoder, frame queue and demand session. Host
// threads, one at a time, under the session's lock.
#pragma once

#include <ServerMediaSession.hh>
#include <memory>
#include <string>

#include "base/streamexception.h"
#include "codec/transcoder.h"
#include "rtsp/framesourcehandler.h"
#include "session/isubsession.h"
#include "session/streamenvironment.h"

namespace kavo::impl {

template <class DemandSession>
class VideoSubSession : public ISubSession {
 public:
  // Adds its demand session to the media session last. Throws what the transcoder throws.
  VideoSubSession(StreamEnvironment const& env, ServerMediaSession& media, std::string const& name,
                  VideoCodecParameter const* parameter)
      : ISubSession(env), m_Transcoder(std::make_shared<Transcoder>(parameter)) {
    m_FrameSourceHandler->setParameterSets(m_Transcoder->parameterSets());
    m_FrameSourceHandler->observer().describe(
        {name, parameter->m_DstCodecId, parameter->m_DstWidth, parameter->m_DstHeight});
    m_MediaSession = env.runOnLoop([&] {
      eventLoopRole.assertHeld();
      auto* const session = DemandSession::createNew(env.GetUsageEnvironment(), m_FrameSourceHandler, env.delivery());
      media.addSubsession(session);
      return session;
    });
  }

  void submitFrame(unsigned char const* frame) override {
    if (frame == nullptr) {
      throw StreamException("Invalid frame buffer", ErrorInvalidParameter);
    }
    if (!isWanted()) {
      return;
    }
    auto& observer = m_FrameSourceHandler->observer();
    auto const submitted = KeyFrameRequest::Clock::now();
    if (m_FrameSourceHandler->keyFrameRequest().take(submitted)) {
      m_Transcoder->requestKeyFrame();
      observer.add(Count::KeyFramesRequested);
    }
    FrameSourceHandler::FrameData data{};
    try {
      m_Transcoder->transcode(frame, data.packet);
      FrameSourceHandler::setSubmitTime(data.packet, submitted);
      m_FrameSourceHandler->push(data);
    } catch (...) {
      av_packet_unref(&data.packet);
      observer.add(Count::Failed);
      m_Transcoder->requestKeyFrame();  // the next frame would refer to the one that is lost
      throw;
    }
    observer.add(data.packet.data != nullptr ? Count::Encoded : Count::Skipped);
    signal();
  }

 private:
  std::shared_ptr<Transcoder> m_Transcoder;
};

}  // namespace kavo::impl
