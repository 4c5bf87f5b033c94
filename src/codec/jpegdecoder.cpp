#include "codec/jpegdecoder.h"

#include "base/streamexception.h"
#include "codec/hostnumbers.h"

namespace kavo::impl {

JpegDecoder::JpegDecoder(VideoCodecParameter const& parameter) : IDecoder(parameter) {
  AVCodec const* codec = avcodec_find_decoder(codecIdOf(m_Parameter.m_SrcCodecId));
  if (codec == nullptr) {
    throw StreamException("AVCodec find failed", ErrorCodec);
  }
  m_CodecContext.reset(avcodec_alloc_context3(codec));
  if (!m_CodecContext) {
    throw StreamException("AVCodec alloc context failed", ErrorResource);
  }
  m_CodecContext->qcompress = 0.1F;
  m_CodecContext->qmin = 1;
  m_CodecContext->qmax = 100;
  if (avcodec_open2(m_CodecContext.get(), codec, nullptr) < 0) {
    throw StreamException("AVCodec open failed", ErrorCodec);
  }
}

void JpegDecoder::decode(unsigned char const*, AVPacket&) {}

}  // namespace kavo::impl
