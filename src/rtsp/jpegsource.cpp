#include "rtsp/jpegsource.h"

#include <sys/time.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kavo {

JpegSource* JpegSource::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) {
  return new JpegSource(env, std::move(handler));
}

JpegSource::JpegSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
    : JPEGVideoSource(env), m_FrameSourceHandler(std::move(handler)), m_Trigger(env.taskScheduler(), deliverFrame0) {
  m_FrameSourceHandler->SetStreaming(true);
}

JpegSource::~JpegSource() {
  eventLoopRole.assertHeld();
  m_FrameSourceHandler->SetStreaming(false);
  m_FrameSourceHandler->clear();
}

void JpegSource::signalNewFrameData(TaskScheduler* scheduler, FramedSource* source) {
  auto* jpegSource = dynamic_cast<JpegSource*>(source);
  if (scheduler != nullptr && jpegSource != nullptr) {
    jpegSource->m_Trigger.fire(*scheduler, jpegSource);
  }
}

// 4:2:0, which is what JpegEncoder makes.
u_int8_t JpegSource::type() { return 1; }

// 128 and more: the tables travel with the picture.
u_int8_t JpegSource::qFactor() { return 195; }

u_int8_t JpegSource::width() { return m_Size.width; }

u_int8_t JpegSource::height() { return m_Size.height; }

u_int8_t const* JpegSource::quantizationTables(u_int8_t& precision, u_int16_t& length) {
  if (!m_QuantizationTables) {
    precision = 0;
    length = 0;
    return nullptr;
  }
  // The bits of the two tables sent are clear: both hold 8-bit coefficients.
  precision = 8;
  length = static_cast<u_int16_t>(m_QuantizationTables->size());
  return m_QuantizationTables->data();
}

// A frame may have been queued while the sink was not waiting.
void JpegSource::doGetNextFrame() {
  eventLoopRole.assertHeld();
  deliverFrame();
}

void JpegSource::deliverFrame0(void* clientData) {
  eventLoopRole.assertHeld();
  if (clientData != nullptr) {
    static_cast<JpegSource*>(clientData)->deliverFrame();
  }
}

void JpegSource::deliverFrame() {
  if (!isCurrentlyAwaitingData() || m_FrameSourceHandler->empty()) {
    return;
  }
  AVPacket const packet = m_FrameSourceHandler->front().packet;
  bool const hasData = packet.data != nullptr;
  if (hasData) {
    deliver(packet);
  }
  // Before the sink is told: it may ask for the next frame, or close us.
  m_FrameSourceHandler->pop();
  if (hasData) {
    FramedSource::afterGetting(this);
  }
}

void JpegSource::deliver(AVPacket const& packet) {
  std::span const image(packet.data, static_cast<std::size_t>(packet.size));
  unsigned const delivered = std::min(static_cast<unsigned>(image.size()), fMaxSize);
  fNumTruncatedBytes = static_cast<unsigned>(image.size()) - delivered;
  gettimeofday(&fPresentationTime, nullptr);
  auto const headerLength = std::min(static_cast<unsigned>(setParamsFromHeader(image)), delivered);
  fFrameSize = delivered - headerLength;
  std::memcpy(fTo, packet.data + headerLength, fFrameSize);
}

std::size_t JpegSource::setParamsFromHeader(std::span<std::uint8_t const> image) {
  JpegHeader const header = readJpegHeader(image);
  if (header.size) {
    m_Size = *header.size;
  } else {
    std::puts("WARNING: zRJPEGVideoSource -> Failed to find SOF0 marker in header!");
  }
  if (header.tables) {
    m_QuantizationTables = header.tables;
  }
  if (header.length == 0) {
    std::puts("WARNING: zRJPEGVideoSource -> Failed to find header size!");
  }
  return header.length;
}

}  // namespace kavo
