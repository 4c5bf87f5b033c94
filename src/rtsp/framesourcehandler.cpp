#include "rtsp/framesourcehandler.h"

#include <algorithm>
#include <stdexcept>

namespace kavo::impl {

namespace {
constexpr std::size_t capacity = 10;
constexpr std::chrono::steady_clock::duration longestFreshness = std::chrono::seconds(60);
}  // namespace

FrameSourceHandler::~FrameSourceHandler() {
  clear();
  av_packet_unref(&m_Newest);
}

void FrameSourceHandler::push(FrameData frame) {
  MutexLock lock(m_Mutex);
  if (frame.packet.data != nullptr && submitTime(frame.packet) < m_Cleared) {
    release(frame.packet);
    return;
  }
  m_Frames.push_back(frame);
  keep(frame.packet);
}

// Another reference to its bytes. Without memory for that there is none to keep.
void FrameSourceHandler::keep(AVPacket const& packet) {
  av_packet_unref(&m_Newest);
  if (packet.buf != nullptr && (packet.flags & AV_PKT_FLAG_KEY) != 0 && av_packet_ref(&m_Newest, &packet) == 0) {
    m_NewestSubmit = m_LastSubmit.load(std::memory_order_relaxed);
  }
}

std::optional<std::chrono::steady_clock::time_point> FrameSourceHandler::requeueNewest() {
  MutexLock lock(m_Mutex);
  // One that another submit has followed is older than that.
  if (m_Newest.data == nullptr || roughly() - m_NewestSubmit >= freshness()) {
    return std::nullopt;
  }
  AVPacket& packet = m_Frames.emplace_back().packet;
  if (av_packet_ref(&packet, &m_Newest) != 0) {
    m_Frames.pop_back();
    return std::nullopt;
  }
  return submitTime(packet);
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

std::chrono::steady_clock::duration FrameSourceHandler::freshness() const {
  auto const interval = std::min(longestFreshness, m_SubmitInterval.load(std::memory_order_relaxed));
  return roughly() - m_LastSubmit.load(std::memory_order_relaxed) <= interval ? interval : Time::duration{};
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
  m_Cleared = std::chrono::steady_clock::now();
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
  release(m_Frames.front().packet);
  m_Frames.pop_front();
}

// Bytes without a buffer are not ours.
void FrameSourceHandler::release(AVPacket& packet) {
  if (packet.data != nullptr && packet.buf != nullptr) {
    av_packet_unref(&packet);
  }
}

void FrameSourceHandler::requireFrame() const {
  if (m_Frames.empty()) {
    throw std::out_of_range("the frame queue is empty");
  }
}

}  // namespace kavo::impl
