#include "session/session.h"

#include <ServerMediaSession.hh>
#include <stdexcept>

#include "base/streamexception.h"
#include "codec/hostnumbers.h"
#include "kavo_stream.h"
#include "rtsp/h264demandsession.h"
#include "rtsp/jpegdemandsession.h"
#include "session/encodedsubsession.h"
#include "session/streamenvironment.h"
#include "session/videosubsession.h"

namespace kavo::impl {

namespace {

std::shared_ptr<ISubSession> makeStream(StreamEnvironment const& env, ServerMediaSession& media,
                                        std::string const& name, ICodecParameter const& given) {
  if (auto const* const encoded = dynamic_cast<EncodedParameter const*>(&given)) {
    return std::make_shared<EncodedSubSession>(env, media, name, *encoded);
  }
  auto const& parameter = static_cast<VideoCodecParameter const&>(given);
  switch (parameter.m_DstCodecId) {
    case KV_CODEC_MJPEG:
      return std::make_shared<VideoSubSession<JpegDemandSession>>(env, media, name, &parameter);
    case KV_CODEC_H264:
      return std::make_shared<VideoSubSession<H264DemandSession>>(env, media, name, &parameter);
    default:
      throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
}

}  // namespace

Session::Session(StreamEnvironment const& env, std::string const& name, std::string const& info,
                 std::string const& description)
    : m_StreamName(name), m_StreamInfo(info), m_StreamDescription(description), m_Environment(env) {
  if (name.empty() || info.empty() || description.empty()) {
    throw StreamException("Invalid session parameter", ErrorInvalidParameter);
  }
  m_MediaSession = env.runOnLoop([&] {
    return ServerMediaSession::createNew(env.GetUsageEnvironment(), m_StreamName.c_str(), m_StreamInfo.c_str(),
                                         m_StreamDescription.c_str(), False, nullptr);
  });
}

Session::~Session() {
  if (!m_Registered && m_MediaSession != nullptr) {
    try {
      m_Environment.runOnLoop([this] { Medium::close(m_MediaSession); });
    } catch (...) {  // without memory to ask for it, it stays until the process ends
    }
  }
}

void Session::addStream(ICodecParameter const* param) {
  if (param->GetMediaType() != MediaTypeVideo) {
    throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
  MutexLock lock(m_Mutex);
  if (m_Stream) {
    throw StreamException("Stream already initialized", ErrorAlreadyThere);
  }
  m_Stream = makeStream(m_Environment, *m_MediaSession, m_StreamName, *param);
  m_StreamToAsk = m_Stream.get();
}

void Session::status(void* streamId, kv_status_record& record) const {
  ISubSession const* const stream = m_StreamToAsk;
  if (stream == nullptr || streamId != stream) {
    throw StreamException("Invalid stream ID", ErrorNoStream);
  }
  stream->status(record);
}

ISubSession& Session::streamOf(void* streamId) {
  if (m_Ended) {
    throw std::out_of_range("No such session");
  }
  if (!m_Stream || streamId != m_Stream.get()) {
    throw StreamException("Invalid stream ID", ErrorNoStream);
  }
  return *m_Stream;
}

}  // namespace kavo::impl
