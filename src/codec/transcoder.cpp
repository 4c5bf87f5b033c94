#include "codec/transcoder.h"

#include "base/streamexception.h"
#include "codec/hostnumbers.h"
#include "codec/jpegencoder.h"

namespace kavo {

namespace {

void checkInput(std::int32_t codecId) {
  if (codecId != HostCodecNone && codecId != HostCodecMjpeg) {
    throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
}

std::shared_ptr<IEncoder> makeEncoder(VideoCodecParameter const& parameter) {
  switch (parameter.m_DstCodecId) {
    case HostCodecMjpeg:
      return std::make_shared<JpegEncoder>(parameter);
    case HostCodecH264:
      throw StreamException("OpenH264 library initialization failed failed", ErrorCodec);
    default:
      throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
}

}  // namespace

Transcoder::Transcoder(VideoCodecParameter const* parameter) {
  checkInput(parameter->m_SrcCodecId);
  m_Encoder = makeEncoder(*parameter);
}

void Transcoder::transcode(unsigned char const* frame, AVPacket& packet) { m_Encoder->encode(frame, packet); }

}  // namespace kavo
