// Moves JPEG images from a stream's queue to live555's JPEG sink. Event-loop thread, except
// signalNewFrameData().
#pragma once

#include <JPEGVideoSource.hh>
#include <optional>

#include "rtp/jpegheader.h"
#include "rtsp/queuedsource.h"

namespace kavo::impl {

// RTP/JPEG sends a few parameters instead of the image's header: they are read from each
// image, and only the scan data is delivered.
class JpegSource : public QueuedSource<JPEGVideoSource> {
 public:
  static JpegSource* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole);

  u_int8_t type() override;
  u_int8_t qFactor() override;
  u_int8_t width() override;
  u_int8_t height() override;
  u_int8_t const* quantizationTables(u_int8_t& precision, u_int16_t& length) override;

 protected:
  JpegSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole);

  void copyFrame(AVPacket const& packet, unsigned deliverable) override KAVO_REQUIRES(eventLoopRole);

 private:
  std::size_t setParamsFromHeader(std::span<std::uint8_t const> image) KAVO_REQUIRES(eventLoopRole);

  JpegHeader::Size m_Size KAVO_GUARDED_BY(eventLoopRole){.width = 0, .height = 0};
  std::optional<JpegHeader::QuantizationTables> m_QuantizationTables KAVO_GUARDED_BY(eventLoopRole);
};

}  // namespace kavo::impl
