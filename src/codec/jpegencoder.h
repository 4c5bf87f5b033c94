// Raw frames to JPEG images with FFmpeg's MJPEG encoder. Host thread, one at a time.
#pragma once

#include "codec/iencoder.h"

namespace kavo::impl {

class JpegEncoder : public IEncoder {
 public:
  // The largest width and height that RTP/JPEG can express: 255 units of 8 pixels.
  static constexpr std::int32_t maxSize = 2040;

  explicit JpegEncoder(VideoCodecParameter const& parameter);

  void encode(unsigned char const* frame, AVPacket& packet) override;

 private:
  void openCodec();
};

}  // namespace kavo::impl
