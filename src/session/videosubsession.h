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
    m_FrameSourceHandler->status().take(name, descriptionOf(*parameter));
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
    auto& status = m_FrameSourceHandler->status();
    status.add(&kv_status_stream::offered);
    m_FrameSourceHandler->noteSubmit();
    if (!m_FrameSourceHandler->IsStreaming()) {
      status.add(&kv_status_stream::dropped_unwatched);
      return;
    }
    if (!m_FrameSourceHandler->IsBufferFree()) {
      status.add(&kv_status_stream::dropped_full);
      return;
    }
    auto const submitted = KeyFrameRequest::Clock::now();
    if (m_FrameSourceHandler->keyFrameRequest().take(submitted)) {
      m_Transcoder->requestKeyFrame();
      if (status && status->codec == KV_CODEC_H264) {
        status.add(&kv_status_stream::key_frames_asked);
        status::note(KV_STATUS_KEY_FRAME, status.name(), "", "");
      }
    }
    FrameSourceHandler::FrameData data{};
    try {
      m_Transcoder->transcode(frame, data.packet);
    } catch (...) {
      status.add(&kv_status_stream::failed);
      throw;
    }
    if (status) {
      noteEncoded(data.packet, submitted);
    }
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

  void noteEncoded(AVPacket const& packet, KeyFrameRequest::Clock::time_point since) {
    auto const& status = m_FrameSourceHandler->status();
    bool const any = packet.data != nullptr;
    bool const key = any && status->codec == KV_CODEC_H264 && (packet.flags & AV_PKT_FLAG_KEY) != 0;
    status.add(any ? &kv_status_stream::encoded : &kv_status_stream::skipped);
    status.add(&kv_status_stream::key_frames, key ? 1 : 0);
    status.add(&kv_status_stream::bytes, static_cast<std::uint64_t>(packet.size));
    auto const time = std::chrono::duration_cast<std::chrono::microseconds>(KeyFrameRequest::Clock::now() - since);
    status.add(&kv_status_stream::encoding, static_cast<std::uint64_t>(time.count()));
  }

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  std::shared_ptr<Transcoder> m_Transcoder;
};

}  // namespace kavo::impl
