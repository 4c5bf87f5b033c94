// A video stream: transcoder, frame queue and demand session joined. Host
// threads, one at a time.
#pragma once

#include <ServerMediaSession.hh>
#include <memory>

#include "base/streamexception.h"
#include "codec/transcoder.h"
#include "rtsp/framesourcehandler.h"
#include "session/isubsession.h"
#include "session/streamenvironment.h"

namespace kavo::impl {

template <class DemandSession>
class VideoSubSession : public ISubSession {
 public:
  // Adds its demand session to the media session last. Throws what the
  // transcoder throws.
  VideoSubSession(StreamEnvironment const& env, ServerMediaSession& media, VideoCodecParameter const* parameter)
      : ISubSession(env),
        m_FrameSourceHandler(std::make_shared<FrameSourceHandler>()),
        m_Transcoder(std::make_shared<Transcoder>(parameter)) {
    auto const parameterSets = m_Transcoder->parameterSets();
    m_MediaSession = env.runOnLoop([&] {
      eventLoopRole.assertHeld();
      auto* const session = DemandSession::createNew(env.GetUsageEnvironment(), m_FrameSourceHandler, parameterSets);
      media.addSubsession(session);
      return session;
    });
  }

  void submitFrame(unsigned char const* frame) override {
    if (frame == nullptr) {
      throw StreamException("Invalid frame buffer", ErrorInvalidParameter);
    }
    if (!m_FrameSourceHandler->IsStreaming() || !m_FrameSourceHandler->IsBufferFree()) {
      return;
    }
    auto const submitted = KeyFrameRequest::Clock::now();
    if (m_FrameSourceHandler->keyFrameRequest().take(submitted)) {
      m_Transcoder->requestKeyFrame();
    }
    FrameSourceHandler::FrameData data{};
    m_Transcoder->transcode(frame, data.packet);
    FrameSourceHandler::setSubmitTime(data.packet, submitted);
    try {
      m_FrameSourceHandler->push(data);
    } catch (...) {
      av_packet_unref(&data.packet);
      throw;
    }
    m_MediaSession->signalNewFrame(m_Environment.GetTaskScheduler());
  }

 private:
  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  std::shared_ptr<Transcoder> m_Transcoder;
};

}  // namespace kavo::impl
