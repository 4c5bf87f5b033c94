// The decoder stage of a stream that declares encoded input. Host thread.
#pragma once

#include "base/cptr.h"
#include "base/noncopyable.h"
#include "codec/codecparameter.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kavo::impl {

class IDecoder : NonCopyable {
 public:
  virtual ~IDecoder() = default;

  // Called before the encoder for every frame.
  virtual void decode(unsigned char const* frame, AVPacket& packet) = 0;

 protected:
  explicit IDecoder(VideoCodecParameter const& parameter) : m_Parameter(parameter) {}

  VideoCodecParameter m_Parameter;
  CPtr<AVCodecContext, avcodec_free_context> m_CodecContext;
};

}  // namespace kavo::impl
