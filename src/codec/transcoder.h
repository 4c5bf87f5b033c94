// The codec stages of one stream: one raw frame in, one encoded packet out.
// Host thread, one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/noncopyable.h"
#include "codec/idecoder.h"
#include "codec/iencoder.h"

namespace kavo::impl {

class Transcoder : NonCopyable {
 public:
  // Builds the stages for the codec ids and throws what they throw, or "Invalid codec
  // parameter" for unsupported ids.
  explicit Transcoder(VideoCodecParameter const* parameter);
  virtual ~Transcoder() = default;

  // See IEncoder::encode. A failure leaves the transcoder usable.
  void transcode(unsigned char const* frame, AVPacket& packet);

  // See IEncoder.
  void requestKeyFrame() { m_Encoder->requestKeyFrame(); }
  std::vector<std::uint8_t> parameterSets() { return m_Encoder->parameterSets(); }

 private:
  // In this order, so that an unusable input is reported before an unusable output.
  std::shared_ptr<IDecoder> m_Decoder;
  std::shared_ptr<IEncoder> m_Encoder;
};

}  // namespace kavo::impl
