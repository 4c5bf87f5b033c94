// A video stream: transcoder, frame queue and demand session joined. Host
// threads, one at a time: under the session's lock.
#pragma once

#include <ServerMediaSession.hh>
#include <chrono>
#include <memory>
#include <string>

#include "base/streamexception.h"
#include "codec/transcoder.h"
#include "kavo_stream.h"
#include "rtsp/framesourcehandler.h"
#include "session/isubsession.h"
#include "session/streamenvironment.h"

namespace kavo::impl {

template <class DemandSession>
class VideoSubSession : public ISubSession {
 public:
  // Adds its demand session to the media session last. Throws what the
  // transcoder throws.
  VideoSubSession(StreamEnvironment const& env, ServerMediaSession& media, std::string const& name,
                  VideoCodecParameter const* parameter)
      : ISubSession(env),
        m_FrameSourceHandler(std::make_shared<FrameSourceHandler>()),
        m_Transcoder(std::make_shared<Transcoder>(parameter)) {
    auto const parameterSets = m_Transcoder->parameterSets();
    m_FrameSourceHandler->observer().take(name, descriptionOf(*parameter));
    m_MediaSession = env.runOnLoop([&] {
      eventLoopRole.assertHeld();
      auto* const session =
          DemandSession::createNew(env.GetUsageEnvironment(), m_FrameSourceHandler, parameterSets, env.delivery());
      media.addSubsession(session);
      return session;
    });
  }

  void submitFrame(unsigned char const* frame) override {
    if (frame == nullptr) {
      throw StreamException("Invalid frame buffer", ErrorInvalidParameter);
    }
    auto& observer = m_FrameSourceHandler->observer();
    observer.offered();
    m_FrameSourceHandler->noteSubmit();
    if (!m_FrameSourceHandler->IsStreaming()) {
      observer.unwatched();
      return;
    }
    if (!m_FrameSourceHandler->IsBufferFree()) {
      observer.queueFull();
      return;
    }
    auto const submitted = KeyFrameRequest::Clock::now();
    if (m_FrameSourceHandler->keyFrameRequest().take(submitted)) {
      m_Transcoder->requestKeyFrame();
      observer.keyFrameRequested();
    }
    FrameSourceHandler::FrameData data{};
    try {
      m_Transcoder->transcode(frame, data.packet);
    } catch (...) {
      observer.failed();
      throw;
    }
    bool const isKeyFrame = data.packet.data != nullptr && (data.packet.flags & AV_PKT_FLAG_KEY) != 0;
    observer.encoded(static_cast<std::size_t>(data.packet.size), isKeyFrame, KeyFrameRequest::Clock::now() - submitted);
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
  static kv_status_stream descriptionOf(VideoCodecParameter const& parameter) {
    kv_status_stream description{};
    description.codec = parameter.m_DstCodecId;
    description.width = parameter.m_DstWidth;
    description.height = parameter.m_DstHeight;
    description.source_width = parameter.m_SrcWidth;
    description.source_height = parameter.m_SrcHeight;
    description.frame_rate = parameter.m_FrameRate;
    description.bitrate = parameter.m_Bitrate;
    return description;
  }

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  std::shared_ptr<Transcoder> m_Transcoder;
};

}  // namespace kavo::impl
