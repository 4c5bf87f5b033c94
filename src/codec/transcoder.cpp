#include "codec/transcoder.h"

#include "base/streamexception.h"
#include "codec/hostnumbers.h"
#include "codec/jpegdecoder.h"
#include "codec/jpegencoder.h"
#include "codec/openh264encoder.h"
#include "kavo_stream.h"

namespace kavo::impl {

namespace {

std::shared_ptr<IDecoder> makeDecoder(VideoCodecParameter const& parameter) {
  switch (parameter.m_SrcCodecId) {
    case KV_CODEC_RAW:
      return nullptr;
    case KV_CODEC_MJPEG:
      return std::make_shared<JpegDecoder>(parameter);
    default:
      throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
}

std::shared_ptr<IEncoder> makeEncoder(VideoCodecParameter const& parameter) {
  switch (parameter.m_DstCodecId) {
    case KV_CODEC_MJPEG:
      return std::make_shared<JpegEncoder>(parameter);
    case KV_CODEC_H264:
      return std::make_shared<OpenH264Encoder>(parameter);
    default:
      throw StreamException("Invalid codec parameter", ErrorInvalidParameter);
  }
}

}  // namespace

Transcoder::Transcoder(VideoCodecParameter const* parameter)
    : m_Decoder(makeDecoder(*parameter)), m_Encoder(makeEncoder(*parameter)) {}

void Transcoder::transcode(unsigned char const* frame, AVPacket& packet) {
  if (m_Decoder) {
    m_Decoder->decode(frame, packet);
  }
  m_Encoder->encode(frame, packet);
}

}  // namespace kavo::impl
