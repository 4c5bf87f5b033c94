#include "rtsp/framesourcehandler.h"

#include <stdexcept>

namespace kavo::impl {

namespace {
constexpr std::size_t capacity = 10;
}

FrameSourceHandler::~FrameSourceHandler() { clear(); }

void FrameSourceHandler::push(FrameData frame) {
  MutexLock lock(m_Mutex);
  m_Frames.push_back(frame);
}

FrameSourceHandler::FrameData FrameSourceHandler::front() const {
  MutexLock lock(m_Mutex);
  requireFrame();
  return m_Frames.front();
}

FrameSourceHandler::FrameData FrameSourceHandler::back() const {
  MutexLock lock(m_Mutex);
  requireFrame();
  return m_Frames.back();
}

void FrameSourceHandler::pop() {
  MutexLock lock(m_Mutex);
  requireFrame();
  removeFront();
}

void FrameSourceHandler::clear() {
  MutexLock lock(m_Mutex);
  while (!m_Frames.empty()) {
    removeFront();
  }
}

bool FrameSourceHandler::empty() const {
  MutexLock lock(m_Mutex);
  return m_Frames.empty();
}

std::uint32_t FrameSourceHandler::size() const {
  MutexLock lock(m_Mutex);
  return static_cast<std::uint32_t>(m_Frames.size());
}

bool FrameSourceHandler::IsBufferFree() const {
  MutexLock lock(m_Mutex);
  return m_Frames.size() < capacity;
}

void FrameSourceHandler::removeFront() {
  AVPacket& packet = m_Frames.front().packet;
  // Bytes without a buffer are not ours to release.
  if (packet.data != nullptr && packet.buf != nullptr) {
    av_packet_unref(&packet);
  }
  m_Frames.pop_front();
}

void FrameSourceHandler::requireFrame() const {
  if (m_Frames.empty()) {
    throw std::out_of_range("the frame queue is empty");
  }
}

}  // namespace kavo::impl
