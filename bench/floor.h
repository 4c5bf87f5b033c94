// A frame through libswscale and an encoder, called directly: what a submit costs at least, and the bytes that it has
// to give. The library's settings are written out here, not taken from it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/cptr.h"
#include "codec/openh264library.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

class Floor {
 public:
  struct Options {
    bool isJpeg = true;
    AVPixelFormat layout = AV_PIX_FMT_RGB24;  // of the source
    int width = 0, height = 0;                // of the source
    int outputWidth = 0, outputHeight = 0;
    int bitrate = 2000000;
    int frameRate = 25;
  };

  explicit Floor(Options const& options)
      : m_Options(options),
        m_Scaler(sws_getContext(options.width, options.height, options.layout, options.outputWidth,
                                options.outputHeight, AV_PIX_FMT_YUV420P, SWS_FAST_BILINEAR, nullptr, nullptr,
                                nullptr)) {
    m_Frame->format = options.isJpeg ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    m_Frame->width = options.outputWidth;
    m_Frame->height = options.outputHeight;
    check(av_frame_get_buffer(m_Frame.get(), 1));
    options.isJpeg ? openJpeg() : openH264();
  }

  // Returns the encoded frame, without H.264's first start code; empty if the encoder skips it. Valid until the next
  // call.
  std::span<std::uint8_t const> encode(std::uint8_t const* pixels) {
    std::uint8_t* planes[4];
    int strides[4];
    av_image_fill_arrays(planes, strides, pixels, m_Options.layout, m_Options.width, m_Options.height, 1);
    sws_scale(m_Scaler.get(), planes, strides, 0, m_Options.height, m_Frame->data, m_Frame->linesize);
    return m_Options.isJpeg ? encodeJpeg() : encodeH264();
  }

 private:
  static void check(int result) {
    if (result != 0) {
      throw std::runtime_error("an encoder fails with " + std::to_string(result));
    }
  }

  void openJpeg() {
    m_Jpeg.reset(avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG)));
    m_Jpeg->bit_rate = m_Jpeg->bit_rate_tolerance = m_Options.bitrate;
    m_Jpeg->width = m_Options.outputWidth;
    m_Jpeg->height = m_Options.outputHeight;
    m_Jpeg->time_base = {1, 1};
    m_Jpeg->pix_fmt = AV_PIX_FMT_YUVJ420P;
    m_Jpeg->qcompress = 1;
    m_Jpeg->qmin = 1;
    m_Jpeg->qmax = 100;
    av_opt_set(m_Jpeg->priv_data, "huffman", "default", 0);
    check(avcodec_open2(m_Jpeg.get(), nullptr, nullptr));
  }

  void openH264() {
    m_H264 = kavo::impl::OpenH264Library().createEncoder();
    SEncParamBase base{};
    base.iUsageType = CAMERA_VIDEO_REAL_TIME;
    base.iPicWidth = m_Options.outputWidth;
    base.iPicHeight = m_Options.outputHeight;
    base.iTargetBitrate = m_Options.bitrate;
    base.iRCMode = RC_BITRATE_MODE;
    base.fMaxFrameRate = static_cast<float>(m_Options.frameRate);
    for (auto [option, value] : {std::pair(ENCODER_OPTION_TRACE_LEVEL, int{WELS_LOG_QUIET}),
                                 {ENCODER_OPTION_DATAFORMAT, int{videoFormatI420}},
                                 {ENCODER_OPTION_IDR_INTERVAL, 2 * m_Options.frameRate},
                                 {ENCODER_OPTION_RC_FRAME_SKIP, 1},
                                 {ENCODER_OPTION_SPS_PPS_ID_STRATEGY, 0}}) {
      check(m_H264->SetOption(option, &value));
      if (option == ENCODER_OPTION_TRACE_LEVEL) {
        check(m_H264->Initialize(&base));
      }
    }
  }

  std::span<std::uint8_t const> encodeJpeg() {
    av_packet_unref(m_Packet.get());
    check(avcodec_send_frame(m_Jpeg.get(), m_Frame.get()));
    check(avcodec_receive_packet(m_Jpeg.get(), m_Packet.get()));
    return {m_Packet->data, static_cast<std::size_t>(m_Packet->size)};
  }

  std::span<std::uint8_t const> encodeH264() {
    SSourcePicture picture{};
    picture.iColorFormat = videoFormatI420;
    picture.iPicWidth = m_Options.outputWidth;
    picture.iPicHeight = m_Options.outputHeight;
    std::copy_n(m_Frame->linesize, 3, picture.iStride);
    std::copy_n(m_Frame->data, 3, picture.pData);
    SFrameBSInfo info{};
    check(m_H264->EncodeFrame(&picture, &info));
    if (info.eFrameType == videoFrameTypeSkip) {
      return {};
    }
    constexpr int startCode = 4;
    return {info.sLayerInfo[0].pBsBuf + startCode, static_cast<std::size_t>(info.iFrameSizeInBytes - startCode)};
  }

  Options const m_Options;
  kavo::impl::CPtr<SwsContext, sws_freeContext> const m_Scaler;
  kavo::impl::CPtr<AVFrame, av_frame_free> const m_Frame{av_frame_alloc()};
  kavo::impl::CPtr<AVPacket, av_packet_free> const m_Packet{av_packet_alloc()};
  kavo::impl::CPtr<AVCodecContext, avcodec_free_context> m_Jpeg;
  kavo::impl::OpenH264Library::Encoder m_H264{nullptr, nullptr};
};
