#include "session/encodedsubsession.h"

#include <ServerMediaSession.hh>
#include <algorithm>
#include <utility>

#include "base/streamexception.h"
#include "delivery/frame.h"
#include "rtp/jpegimage.h"
#include "rtsp/encodedjpegdemandsession.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/h264demandsession.h"
#include "rtsp/h265demandsession.h"
#include "session/streamenvironment.h"

namespace kavo::impl {

namespace {

template <class DemandSession>
LiveDemandSession* create(StreamEnvironment const& env, std::shared_ptr<FrameSourceHandler> queue, unsigned kilobits) {
  eventLoopRole.assertHeld();
  auto& usage = env.GetUsageEnvironment();
  return kilobits > 0 ? DemandSession::createNew(usage, std::move(queue), env.delivery(), kilobits)
                      : DemandSession::createNew(usage, std::move(queue), env.delivery());
}

}  // namespace

// The demand session knows the codec's packets and SDP; the rest of a codec is a line in formatOf().
struct EncodedSubSession::Format {
  std::int32_t codec;
  std::optional<NalCodec> nalCodec;
  LiveDemandSession* (*create)(StreamEnvironment const& env, std::shared_ptr<FrameSourceHandler> queue,
                               unsigned kilobits);
};

EncodedSubSession::Format const& EncodedSubSession::formatOf(std::int32_t codec) {
  static constexpr Format formats[] = {{KV_CODEC_MJPEG, std::nullopt, create<EncodedJpegDemandSession>},
                                       {KV_CODEC_H264, NalCodec::H264, create<H264DemandSession>},
                                       {KV_CODEC_H265, NalCodec::H265, create<H265DemandSession>}};
  auto const format = std::ranges::find(formats, codec, &Format::codec);
  if (format == std::end(formats)) {
    throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
  return *format;
}

EncodedSubSession::EncodedSubSession(StreamEnvironment const& env, ServerMediaSession& media, std::string const& name,
                                     EncodedParameter const& parameter)
    : ISubSession(env), m_Format(formatOf(parameter.m_Codec)) {
  if (auto const nalCodec = m_Format.nalCodec) {
    m_ParameterSets = std::make_unique<ParameterSets>(*nalCodec);
  }
  if (!parameter.m_ParameterSets.empty()) {
    if (!m_ParameterSets) {
      throw StreamException("JPEG has no parameter sets", ErrorInvalidParameter);
    }
    try {
      m_ParameterSets->read(parameter.m_ParameterSets);
    } catch (UnusableFrame const& reason) {
      throw StreamException(std::string("Unusable parameter sets: ") + reason.what(), ErrorCodec);
    }
    m_FrameSourceHandler->setParameterSets(m_ParameterSets->bytes());
  }
  m_FrameSourceHandler->observer().describe({name, parameter.m_Codec, 0, 0});
  m_MediaSession = env.runOnLoop([&] {
    auto* const session = m_Format.create(env, m_FrameSourceHandler, static_cast<unsigned>(parameter.m_Bitrate));
    media.addSubsession(session);
    return session;
  });
}

std::uint32_t EncodedSubSession::submitEncoded(EncodedFrame const& frame) {
  bool const isFull = !m_FrameSourceHandler->IsBufferFree();
  if (isWanted()) {
    queue(frame, Clock::now());
  } else {
    m_IsBroken = isFull || m_IsBroken;
  }
  return m_FrameSourceHandler->IsStreaming() ? wanted(Clock::now()) : 0;
}

std::uint32_t EncodedSubSession::wanted(Clock::time_point now) const {
  auto const& request = m_FrameSourceHandler->keyFrameRequest();
  bool const isKeyFrameWanted = (m_IsBroken || request.isPending()) && request.mayAsk(now);
  return KV_WANTS_FRAME | (m_Format.nalCodec && isKeyFrameWanted ? std::uint32_t{KV_WANTS_KEY_FRAME} : 0U);
}

EncodedSubSession::Clock::time_point EncodedSubSession::timeOf(EncodedFrame const& frame, Clock::time_point now) const {
  if (!frame.captured) {
    return std::max(now, m_LastTime + std::chrono::microseconds(1));
  }
  if (*frame.captured <= m_LastTime) {
    throw StreamException("The frame's time is not after that of the one before", ErrorInvalidParameter);
  }
  return *frame.captured;
}

AccessUnit EncodedSubSession::read(std::span<std::uint8_t const> bytes) {
  if (!m_ParameterSets) {
    JpegImage const checked(bytes);
    return {.isKeyFrame = true, .hasParameterSets = true};
  }
  auto const unit = m_ParameterSets->learn(bytes);
  if (unit.isKeyFrame && !m_ParameterSets->areComplete()) {
    throw UnusableFrame("a key frame, but the parameter sets are not known");
  }
  return unit;
}

void EncodedSubSession::queue(EncodedFrame const& frame, Clock::time_point now) {
  auto& observer = m_FrameSourceHandler->observer();
  auto const time = timeOf(frame, now);
  bool const wasBroken = std::exchange(m_IsBroken, true);  // until this frame is queued
  FrameSourceHandler::FrameData data{};
  bool isKeyFrame = false;
  try {
    auto const unit = read(frame.bytes);
    isKeyFrame = unit.isKeyFrame;
    if (wasBroken && !isKeyFrame) {
      observer.add(Count::Skipped);
      return;
    }
    copy(frame.bytes, unit, data.packet);
  } catch (UnusableFrame const& reason) {
    observer.add(Count::Failed);
    throw StreamException(std::string("Unusable frame: ") + reason.what(), ErrorCodec);
  }
  FrameSourceHandler::setSubmitTime(data.packet, time);
  try {
    if (isKeyFrame && m_ParameterSets) {
      m_FrameSourceHandler->setParameterSets(m_ParameterSets->bytes());
    }
    m_FrameSourceHandler->push(data, now);
  } catch (...) {
    av_packet_unref(&data.packet);
    throw;
  }
  m_LastTime = time;
  m_IsBroken = false;
  observer.add(Count::Encoded);
  if (isKeyFrame) {
    m_FrameSourceHandler->keyFrameRequest().grant(now);
  }
  signal();
}

// Adds the parameter sets to a key frame without them, so that a viewer that starts with it can decode it.
void EncodedSubSession::copy(std::span<std::uint8_t const> bytes, AccessUnit const& unit, AVPacket& packet) const {
  auto const sets = unit.isKeyFrame && !unit.hasParameterSets ? m_ParameterSets->bytes() : std::vector<std::uint8_t>();
  std::size_t const size = bytes.size() + sets.size();
  static_assert(EncodedFrame::largest == Frame::largest);
  if (size > Frame::largest) {
    throw UnusableFrame("it is too large, with its parameter sets");
  }
  if (av_new_packet(&packet, static_cast<int>(size)) != 0) {
    throw StreamException("AVPacket allocation failed", ErrorResource);
  }
  auto const rest = std::ranges::copy(bytes.first(unit.delimiter), packet.data).out;
  std::ranges::copy(bytes.subspan(unit.delimiter), std::ranges::copy(sets, rest).out);
  packet.flags |= unit.isKeyFrame ? AV_PKT_FLAG_KEY : 0;
}

}  // namespace kavo::impl
