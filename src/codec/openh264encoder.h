// Raw frames to H.264 access units with OpenH264. Host thread, one at a time.
#pragma once

#include "codec/iencoder.h"
#include "codec/openh264library.h"

namespace kavo::impl {

class OpenH264Encoder : public IEncoder {
 public:
  static constexpr std::int32_t maxWidth = 4096;
  static constexpr std::int32_t maxHeight = 2304;

  explicit OpenH264Encoder(VideoCodecParameter const& parameter);
  ~OpenH264Encoder() override;

  // The packet receives one access unit in Annex B form without the first start code,
  // flagged as a key frame if it is an IDR picture. It stays empty when rate control
  // skipped the frame or OpenH264 failed to encode it.
  void encode(unsigned char const* frame, AVPacket& packet) override;
  void requestKeyFrame() override { m_KeyFrameWanted = true; }
  std::vector<std::uint8_t> parameterSets() override;

 private:
  void initialize();
  void setOption(ENCODER_OPTION option, int value);
  SSourcePicture picture() const;

  OpenH264Library::Encoder m_Encoder;
  bool m_KeyFrameWanted = false;
};

}  // namespace kavo::impl
