// The decoder stage of a stream that declares JPEG input. Host thread.
#pragma once

#include "codec/idecoder.h"

namespace kavo::impl {

class JpegDecoder : public IDecoder {
 public:
  // Throws when libavcodec has no working MJPEG decoder.
  explicit JpegDecoder(VideoCodecParameter const& parameter);

  // Does nothing. A frame is a pointer without a length, so JPEG data cannot be told
  // from a raw frame: hosts submit raw frames whatever input they declare.
  void decode(unsigned char const* frame, AVPacket& packet) override;
};

}  // namespace kavo::impl
