// The codec stages of one stream: one raw frame in, one encoded packet out.
// Host thread, one at a time.
#pragma once

#include <memory>

#include "codec/iencoder.h"

namespace kavo {

class Transcoder {
 public:
  // Builds the stages for the parameters' codec ids, or throws what they throw;
  // "Invalid codec parameter" for ids that there is no stage for.
  explicit Transcoder(VideoCodecParameter const* parameter);
  virtual ~Transcoder() = default;
  Transcoder(Transcoder const&) = delete;
  Transcoder& operator=(Transcoder const&) = delete;

  // See IEncoder::encode. A failure leaves the transcoder usable.
  void transcode(unsigned char const* frame, AVPacket& packet);

 private:
  std::shared_ptr<IEncoder> m_Encoder;
};

}  // namespace kavo
