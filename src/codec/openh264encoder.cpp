#include "codec/openh264encoder.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <numeric>

#include "base/streamexception.h"
#include "codec/hostnumbers.h"
#include "kavo_stream.h"

namespace kavo::impl {

namespace {

constexpr int startCodeSize = 4;

// Checks the size before loading OpenH264.
OpenH264Library libraryFor(VideoCodecParameter const& parameter) {
  if (parameter.m_DstWidth > OpenH264Encoder::maxWidth || parameter.m_DstHeight > OpenH264Encoder::maxHeight) {
    throw StreamException("AVCodec invalid frame size", ErrorCodec);
  }
  return OpenH264Library();
}

}  // namespace

OpenH264Encoder::OpenH264Encoder(VideoCodecParameter const& parameter)
    : IEncoder(parameter), m_Encoder(libraryFor(parameter).createEncoder()) {
  m_Parameter.m_DstPixelFmt = KV_YUV420P;
  setOption(ENCODER_OPTION_TRACE_LEVEL, WELS_LOG_QUIET);
  initialize();
  setOption(ENCODER_OPTION_DATAFORMAT, videoFormatI420);
  setOption(ENCODER_OPTION_IDR_INTERVAL, 2 * std::min(m_Parameter.m_FrameRate, std::numeric_limits<int>::max() / 2));
  setOption(ENCODER_OPTION_RC_FRAME_SKIP, 1);
  // Otherwise every key frame gets new parameter sets, and those in the SDP match only the first.
  setOption(ENCODER_OPTION_SPS_PPS_ID_STRATEGY, CONSTANT_ID);
  allocFrame();
}

OpenH264Encoder::~OpenH264Encoder() { m_Encoder->Uninitialize(); }

void OpenH264Encoder::initialize() {
  SEncParamBase base{};
  base.iUsageType = CAMERA_VIDEO_REAL_TIME;
  base.iPicWidth = m_Parameter.m_DstWidth;
  base.iPicHeight = m_Parameter.m_DstHeight;
  base.iTargetBitrate = m_Parameter.m_Bitrate;
  base.iRCMode = RC_BITRATE_MODE;
  base.fMaxFrameRate = static_cast<float>(m_Parameter.m_FrameRate);
  if (int const result = m_Encoder->Initialize(&base); result != cmResultSuccess) {
    throw StreamException("OpenH264 initialization failed", result == cmMallocMemeError ? ErrorResource : ErrorCodec);
  }
}

void OpenH264Encoder::setOption(ENCODER_OPTION option, int value) {
  if (m_Encoder->SetOption(option, &value) != 0) {
    throw StreamException("OpenH264 set option failed", ErrorCodec);
  }
}

SSourcePicture OpenH264Encoder::picture() const {
  SSourcePicture frame{};
  frame.iColorFormat = videoFormatI420;
  frame.iPicWidth = m_DstFrame->width;
  frame.iPicHeight = m_DstFrame->height;
  // The frame's own strides: for odd widths the chroma strides are rounded up.
  std::copy_n(m_DstFrame->linesize, 3, frame.iStride);
  std::copy_n(m_DstFrame->data, 3, frame.pData);
  return frame;
}

void OpenH264Encoder::encode(unsigned char const* frame, AVPacket& packet) {
  scaleFrame(frame);
  if (m_KeyFrameWanted) {
    m_Encoder->ForceIntraFrame(true);
  }
  SSourcePicture const source = picture();
  SFrameBSInfo info{};
  if (m_Encoder->EncodeFrame(&source, &info) != 0 || info.eFrameType == videoFrameTypeSkip ||
      info.iFrameSizeInBytes <= startCodeSize) {
    return;
  }
  int const size = info.iFrameSizeInBytes - startCodeSize;
  if (av_new_packet(&packet, size) != 0) {
    throw StreamException("AVPacket allocation failed", ErrorResource);
  }
  // Layers and NAL units are contiguous from the first layer on.
  std::memcpy(packet.data, info.sLayerInfo[0].pBsBuf + startCodeSize, static_cast<std::size_t>(size));
  if (info.eFrameType == videoFrameTypeIDR) {
    packet.flags |= AV_PKT_FLAG_KEY;
    m_KeyFrameWanted = false;  // only now: rate control may skip the frame that should have become one
  }
}

// SPS and PPS are available before the first frame.
std::vector<std::uint8_t> OpenH264Encoder::parameterSets() {
  SFrameBSInfo info{};
  if (m_Encoder->EncodeParameterSets(&info) != 0 || info.iLayerNum < 1) {
    return {};
  }
  SLayerBSInfo const& layer = info.sLayerInfo[0];
  int const size = std::accumulate(layer.pNalLengthInByte, layer.pNalLengthInByte + layer.iNalCount, 0);
  return {layer.pBsBuf, layer.pBsBuf + size};
}

}  // namespace kavo::impl
