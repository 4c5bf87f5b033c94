// Moves JPEG images from a stream's queue to live555's JPEG sink. Event-loop
// thread, but for signalNewFrameData().
#pragma once

#include <JPEGVideoSource.hh>
#include <memory>
#include <optional>

#include "rtsp/framesourcehandler.h"
#include "rtsp/frametrigger.h"
#include "rtsp/jpegheader.h"

namespace kavo {

class JpegSource : public JPEGVideoSource {
 public:
  static JpegSource* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole);

  // Any thread: has the event loop look for a frame. Nothing happens for a null
  // pointer or a source of another type.
  static void signalNewFrameData(TaskScheduler* scheduler, FramedSource* source);

  u_int8_t type() override;
  u_int8_t qFactor() override;
  u_int8_t width() override;
  u_int8_t height() override;
  u_int8_t const* quantizationTables(u_int8_t& precision, u_int16_t& length) override;

 protected:
  JpegSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole);
  ~JpegSource() override;

  void doGetNextFrame() override;

 private:
  static void deliverFrame0(void* clientData);
  void deliverFrame() KAVO_REQUIRES(eventLoopRole);
  void deliver(AVPacket const& packet) KAVO_REQUIRES(eventLoopRole);
  std::size_t setParamsFromHeader(std::span<std::uint8_t const> image);

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  JpegHeader::Size m_Size{.width = 0, .height = 0};
  std::optional<JpegHeader::QuantizationTables> m_QuantizationTables;
  FrameTrigger m_Trigger;
};

}  // namespace kavo
