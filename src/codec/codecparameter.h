// The host's video parameters. Each codec class keeps its own copy.
#pragma once

#include <cstdint>

namespace kavo::impl {

class ICodecParameter {
 public:
  virtual ~ICodecParameter() = default;
  virtual std::int32_t GetMediaType() const { return m_MediaType; }
  virtual std::int32_t GetBitrate() const { return m_Bitrate; }

  std::int32_t m_MediaType = 0;  // 0: video
  std::int32_t m_Bitrate = 0;    // bits per second; JpegEncoder interprets it differently
};

inline constexpr std::int32_t MediaTypeVideo = 0;

// Pixel formats and codec ids are the host's numbers (see hostnumbers.h).
class VideoCodecParameter : public ICodecParameter {
 public:
  std::int32_t m_DstWidth = 0;  // encoded frame, pixels
  std::int32_t m_DstHeight = 0;
  std::int32_t m_SrcWidth = 0;  // submitted frame, pixels
  std::int32_t m_SrcHeight = 0;
  std::int32_t m_FrameRate = 0;  // frames per second
  std::int32_t m_SrcPixelFmt = 0;
  std::int32_t m_DstPixelFmt = 0;  // set by each encoder in its own copy
  std::int32_t m_DstCodecId = 0;
  std::int32_t m_SrcCodecId = 0;
};

}  // namespace kavo::impl
