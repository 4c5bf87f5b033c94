// The common base of both encoders: validated parameters, a frame that wraps the
// host's memory, and the scaled frame to encode. Host thread, one at a time.
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

  // Encodes one raw frame, tightly packed in the layout that the parameters specify. The
  // frame is read only during the call. The caller passes a zeroed packet and owns its
  // payload, if any, afterwards (av_packet_unref).
  virtual void encode(unsigned char const* frame, AVPacket& packet) = 0;

  // Makes the next frame a key frame; a no-op for intra-only codecs.
  virtual void requestKeyFrame() {}

  // The parameter sets for the SDP in Annex B form; empty for codecs that have none.
  virtual std::vector<std::uint8_t> parameterSets() { return {}; }

 protected:
  // Throws "Invalid parameter" (see isVideoCodecParameterSupported); silences
  // FFmpeg's log for the process.
  explicit IEncoder(VideoCodecParameter const& parameter);

  // Allocates both frames and the scaler. Each encoder calls it once, after setting
  // m_DstPixelFmt.
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
