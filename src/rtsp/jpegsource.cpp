#include "rtsp/jpegsource.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kavo::impl {

JpegSource* JpegSource::createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) {
  return new JpegSource(env, std::move(handler));
}

JpegSource::JpegSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
    : QueuedSource(env, std::move(handler)) {}

// 4:2:0, as JpegEncoder produces.
u_int8_t JpegSource::type() { return 1; }

// Values from 128 on mean that the tables are sent along.
u_int8_t JpegSource::qFactor() { return 195; }

u_int8_t JpegSource::width() {
  eventLoopRole.assertHeld();
  return m_Size.width;
}

u_int8_t JpegSource::height() {
  eventLoopRole.assertHeld();
  return m_Size.height;
}

u_int8_t const* JpegSource::quantizationTables(u_int8_t& precision, u_int16_t& length) {
  eventLoopRole.assertHeld();
  if (!m_QuantizationTables) {
    precision = 0;
    length = 0;
    return nullptr;
  }
  // The two tables' bits are clear: both have 8-bit coefficients.
  precision = 8;
  length = static_cast<u_int16_t>(m_QuantizationTables->size());
  return m_QuantizationTables->data();
}

void JpegSource::copyFrame(AVPacket const& packet, unsigned deliverable) {
  auto const header = setParamsFromHeader({packet.data, static_cast<std::size_t>(packet.size)});
  auto const skipped = std::min(static_cast<unsigned>(header), deliverable);
  fFrameSize = deliverable - skipped;
  std::memcpy(fTo, packet.data + skipped, fFrameSize);
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

}  // namespace kavo::impl
