// A video stream: transcoder, frame queue and demand session joined. Host
// threads, one at a time: under the session's lock.
#pragma once

#include <ServerMediaSession.hh>
#include <chrono>
#include <cstdint>
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
    m_FrameSourceHandler->observer().describe(
        {name, parameter->m_DstCodecId, parameter->m_DstWidth, parameter->m_DstHeight});
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
    observer.add(Count::Offered);
    if (!m_FrameSourceHandler->IsStreaming()) {
      observer.add(Count::Unwatched);
      return;
    }
    if (!m_FrameSourceHandler->IsBufferFree()) {
      observer.add(Count::QueueFull);
      return;
    }
    auto const submitted = KeyFrameRequest::Clock::now();
    if (m_FrameSourceHandler->keyFrameRequest().take(submitted)) {
      m_Transcoder->requestKeyFrame();
      observer.add(Count::KeyFramesRequested);
    }
    FrameSourceHandler::FrameData data{};
    try {
      m_Transcoder->transcode(frame, data.packet);
    } catch (...) {
      observer.add(Count::Failed);
      throw;
    }
    observer.add(data.packet.data != nullptr ? Count::Encoded : Count::Skipped);
    FrameSourceHandler::setSubmitTime(data.packet, submitted);
    try {
      m_FrameSourceHandler->push(data);
    } catch (...) {
      av_packet_unref(&data.packet);
      throw;
    }
    m_MediaSession->signalNewFrame(m_Environment.GetTaskScheduler());
  }

  void status(kv_status_record& record) const override {
    auto const& observer = m_FrameSourceHandler->observer();
    record.viewers = observer.watching();
    record.wanted = std::uint32_t{m_FrameSourceHandler->IsStreaming()} * KV_WANTS_FRAME |
                    std::uint32_t{m_FrameSourceHandler->keyFrameRequest().isPending()} * KV_WANTS_KEY_FRAME;
    record.offered = observer[Count::Offered];
    record.encoded = observer[Count::Encoded];
    record.unwatched = observer[Count::Unwatched];
    record.failed = observer[Count::Failed];
    record.sent_frames = observer[Count::SentFrames];
    record.sent_bytes = observer[Count::SentBytes];
  }

 private:
  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  std::shared_ptr<Transcoder> m_Transcoder;
};

}  // namespace kavo::impl
