// What both encoders share: validated parameters, the frame that wraps the
// host's memory and the scaled frame that is encoded. Host thread, one at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/cptr.h"
#include "base/noncopyable.h"
#include "codec/codecparameter.h"
#include "codec/scaler.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace kavo::impl {

class IEncoder : NonCopyable {
 public:
  virtual ~IEncoder() = default;

  // Encodes one raw frame, tightly packed in the layout the parameters give. It is
  // read during the call only. The packet arrives zeroed; its payload, if
  // there is one, then belongs to the caller (av_packet_unref).
  virtual void encode(unsigned char const* frame, AVPacket& packet) = 0;

  // Makes the next frame a key frame; a no-op for intra-only codecs.
  virtual void requestKeyFrame() {}

  // Parameter sets for the SDP, in Annex B form; empty for codecs without any.
  virtual std::vector<std::uint8_t> parameterSets() { return {}; }

 protected:
  // Throws "Invalid parameter" (see isVideoCodecParameterSupported); silences
  // FFmpeg's log for the process.
  explicit IEncoder(VideoCodecParameter const& parameter);

  // Allocates both frames and the scaler; called once by each encoder, when its
  // m_DstPixelFmt is set.
  void allocFrame();
  void allocSrcFrame();
  void allocDstFrame();

  // The first stage of every encode: the host's frame, scaled into m_DstFrame.
  void scaleFrame(unsigned char const* frame);

  VideoCodecParameter m_Parameter;
  CPtr<AVCodecContext, avcodec_free_context> m_CodecContext;
  CPtr<AVFrame, av_frame_free> m_SrcFrame;  // planes point into the host's frame
  CPtr<AVFrame, av_frame_free> m_DstFrame;  // owns its frame buffer
  std::unique_ptr<Scaler> m_Scaler;

 private:
  void isVideoCodecParameterSupported() const;
};

}  // namespace kavo::impl
