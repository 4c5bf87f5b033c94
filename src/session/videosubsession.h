// A video stream: transcoder, frame queue and demand session joined. Host
// threads, one at a time.
#pragma once

#include <memory>

#include "base/streamexception.h"
#include "codec/transcoder.h"
#include "rtsp/framesourcehandler.h"
#include "session/isubsession.h"
#include "session/streamenvironment.h"

namespace kavo {

template <class DemandSession>
class VideoSubSession : public ISubSession {
 public:
  // Throws what the transcoder throws.
  VideoSubSession(StreamEnvironment const& env, VideoCodecParameter const* parameter)
      : ISubSession(env),
        m_FrameSourceHandler(std::make_shared<FrameSourceHandler>()),
        m_Transcoder(std::make_shared<Transcoder>(parameter)) {
    m_MediaSession = env.runOnLoop([&] {
      eventLoopRole.assertHeld();
      return DemandSession::createNew(env.GetUsageEnvironment(), m_FrameSourceHandler);
    });
  }

  void submitFrame(unsigned char const* frame) override {
    if (frame == nullptr) {
      throw StreamException("Invalid frame buffer", ErrorInvalidParameter);
    }
    if (!m_FrameSourceHandler->IsStreaming() || !m_FrameSourceHandler->IsBufferFree()) {
      return;
    }
    if (m_FrameSourceHandler->keyFrameRequest().take(KeyFrameRequest::Clock::now())) {
      m_Transcoder->requestKeyFrame();
    }
    FrameSourceHandler::FrameData data{};
    m_Transcoder->transcode(frame, data.packet);
    m_FrameSourceHandler->push(data);
    m_MediaSession->signalNewFrame(m_Environment.GetTaskScheduler());
  }

 private:
  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  std::shared_ptr<Transcoder> m_Transcoder;
};

}  // namespace kavo
