#include "codec/iencoder.h"

#include "base/streamexception.h"
#include "codec/hostnumbers.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace kavo::impl {

IEncoder::IEncoder(VideoCodecParameter const& parameter) : m_Parameter(parameter) {
  isVideoCodecParameterSupported();
  av_log_set_level(AV_LOG_QUIET);
}

void IEncoder::isVideoCodecParameterSupported() const {
  if (m_Parameter.m_SrcWidth == 0 || m_Parameter.m_SrcHeight == 0 || m_Parameter.m_DstWidth == 0 ||
      m_Parameter.m_DstHeight == 0 || m_Parameter.m_Bitrate == 0 ||
      pixelFormatOf(m_Parameter.m_SrcPixelFmt) == AV_PIX_FMT_NONE) {
    throw StreamException("Invalid parameter", ErrorInvalidParameter);
  }
}

void IEncoder::allocFrame() {
  allocSrcFrame();
  allocDstFrame();
  m_Scaler = std::make_unique<Scaler>(m_Parameter.m_SrcWidth, m_Parameter.m_SrcHeight,
                                      pixelFormatOf(m_Parameter.m_SrcPixelFmt), m_Parameter.m_DstWidth,
                                      m_Parameter.m_DstHeight);
}

void IEncoder::allocSrcFrame() {
  m_SrcFrame.reset(av_frame_alloc());
  if (!m_SrcFrame) {
    throw StreamException("AVFrame allocation failed", ErrorResource);
  }
  m_SrcFrame->format = pixelFormatOf(m_Parameter.m_SrcPixelFmt);
  m_SrcFrame->width = m_Parameter.m_SrcWidth;
  m_SrcFrame->height = m_Parameter.m_SrcHeight;
}

void IEncoder::allocDstFrame() {
  m_DstFrame.reset(av_frame_alloc());
  if (!m_DstFrame) {
    throw StreamException("AVFrame allocation failed", ErrorResource);
  }
  auto const format = pixelFormatOf(m_Parameter.m_DstPixelFmt);
  int const size = av_image_get_buffer_size(format, m_Parameter.m_DstWidth, m_Parameter.m_DstHeight, 1);
  // Reference-counted, or libavcodec would copy the frame at every encode.
  m_DstFrame->buf[0] = size > 0 ? av_buffer_alloc(static_cast<std::size_t>(size)) : nullptr;
  if (m_DstFrame->buf[0] == nullptr) {
    throw StreamException("Buffer allocation failed", ErrorResource);
  }
  if (av_image_fill_arrays(m_DstFrame->data, m_DstFrame->linesize, m_DstFrame->buf[0]->data, format,
                           m_Parameter.m_DstWidth, m_Parameter.m_DstHeight, 1) < 0) {
    throw StreamException("AVPicture fill failed", ErrorCodec);
  }
  m_DstFrame->format = format;
  m_DstFrame->width = m_Parameter.m_DstWidth;
  m_DstFrame->height = m_Parameter.m_DstHeight;
}

void IEncoder::scaleFrame(unsigned char const* frame) {
  int const size =
      av_image_fill_arrays(m_SrcFrame->data, m_SrcFrame->linesize, frame,
                           static_cast<AVPixelFormat>(m_SrcFrame->format), m_SrcFrame->width, m_SrcFrame->height, 1);
  if (size < 0) {
    throw StreamException("AVPicture fill failed", ErrorCodec);
  }
  m_Scaler->scale(*m_SrcFrame, frame + size, *m_DstFrame);
}

}  // namespace kavo::impl
