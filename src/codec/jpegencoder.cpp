#include "codec/jpegencoder.h"

#include "base/streamexception.h"
#include "codec/hostnumbers.h"
#include "kavo_stream.h"

extern "C" {
#include <libavutil/dict.h>
}

namespace kavo::impl {

namespace {

// Running out of memory is not a codec failure.
int errorOf(int result) { return result == AVERROR(ENOMEM) ? ErrorResource : ErrorCodec; }

}  // namespace

JpegEncoder::JpegEncoder(VideoCodecParameter const& parameter) : IEncoder(parameter) {
  if (m_Parameter.m_DstWidth > maxSize || m_Parameter.m_DstHeight > maxSize ||
      ((m_Parameter.m_DstWidth | m_Parameter.m_DstHeight) & 3) != 0) {
    throw StreamException("AVCodec invalid frame size", ErrorCodec);
  }
  m_Parameter.m_DstPixelFmt = KV_YUVJ420P;
  openCodec();
  allocFrame();
}

void JpegEncoder::openCodec() {
  AVCodec const* codec = avcodec_find_encoder(codecIdOf(m_Parameter.m_DstCodecId));
  if (codec == nullptr) {
    throw StreamException("AVCodec find failed", ErrorCodec);
  }
  m_CodecContext.reset(avcodec_alloc_context3(codec));
  if (!m_CodecContext) {
    throw StreamException("AVCodec alloc context failed", ErrorResource);
  }
  m_CodecContext->bit_rate = m_Parameter.m_Bitrate;
  m_CodecContext->bit_rate_tolerance = m_Parameter.m_Bitrate;
  m_CodecContext->width = m_Parameter.m_DstWidth;
  m_CodecContext->height = m_Parameter.m_DstHeight;
  // Rate control assumes one frame a second, so the bitrate is in effect the size of
  // each frame in bits, whatever the real frame rate.
  m_CodecContext->time_base = {1, 1};
  m_CodecContext->pix_fmt = pixelFormatOf(m_Parameter.m_DstPixelFmt);
  m_CodecContext->qcompress = 1.0F;
  m_CodecContext->qmin = 1;
  m_CodecContext->qmax = 100;

  // RTP/JPEG carries no Huffman tables: receivers assume the standard ones and would
  // decode garbage with the optimized tables that are FFmpeg's default.
  AVDictionary* options = nullptr;
  av_dict_set(&options, "huffman", "default", 0);
  int const opened = avcodec_open2(m_CodecContext.get(), codec, &options);
  av_dict_free(&options);
  if (opened < 0) {
    throw StreamException("AVCodec open failed", errorOf(opened));
  }
}

void JpegEncoder::encode(unsigned char const* frame, AVPacket& packet) {
  scaleFrame(frame);
  int result = avcodec_send_frame(m_CodecContext.get(), m_DstFrame.get());
  if (result == AVERROR(EAGAIN)) {  // an earlier image could not be received
    result = avcodec_receive_packet(m_CodecContext.get(), &packet);
    av_packet_unref(&packet);
    result = result < 0 ? result : avcodec_send_frame(m_CodecContext.get(), m_DstFrame.get());
  }
  if (result >= 0) {
    result = avcodec_receive_packet(m_CodecContext.get(), &packet);
  }
  if (result < 0 && result != AVERROR(EAGAIN)) {
    throw StreamException("AVCodec encode video failed", errorOf(result));
  }
}

}  // namespace kavo::impl
