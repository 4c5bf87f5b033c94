#include "rtsp/framesourcehandler.h"

#include <algorithm>
#include <stdexcept>

#include "eventloop/contained.h"

namespace kavo::impl {

namespace {
// In frames; absorbs a delay of the event loop of 0.4 s at 25 frames a second.
constexpr std::uint32_t capacity = 10;
constexpr std::chrono::steady_clock::duration longestFreshness = std::chrono::seconds(60);
}  // namespace

FrameSourceHandler::~FrameSourceHandler() {
  clear();
  av_packet_unref(&m_Newest);
}

void FrameSourceHandler::push(FrameData frame, Time submitted) {
  MutexLock lock(m_Mutex);
  if (frame.packet.data != nullptr && submitted < m_Cleared) {
    release(frame.packet);
    return;
  }
  add(frame);
  auto const offered = m_Observer[Count::Offered];
  bool const isNext = m_NewestOffered > 0 && offered == m_NewestOffered + 1;
  m_SubmitInterval.store(isNext ? submitted - m_LastSubmit.load(std::memory_order_relaxed) : Time::duration{},
                         std::memory_order_relaxed);
  m_LastSubmit.store(submitted, std::memory_order_relaxed);
  m_NewestOffered = offered;
  keep(frame.packet);
}

void FrameSourceHandler::add(FrameData const& frame) {
  m_Frames.push_back(frame);
  m_Size.store(static_cast<std::uint32_t>(m_Frames.size()), std::memory_order_release);
}

// Keeps another reference to the bytes, or nothing if there is no memory for one.
void FrameSourceHandler::keep(AVPacket const& packet) {
  av_packet_unref(&m_Newest);
  if (packet.buf != nullptr && (packet.flags & AV_PKT_FLAG_KEY) != 0) {
    av_packet_ref(&m_Newest, &packet);
  }
}

std::optional<std::chrono::steady_clock::time_point> FrameSourceHandler::requeueNewest() {
  MutexLock lock(m_Mutex);
  bool const isLast = m_Observer[Count::Offered] == m_NewestOffered;
  if (m_Newest.data == nullptr || !isLast || freshness() == Time::duration{}) {
    return std::nullopt;
  }
  FrameData again{};
  if (av_packet_ref(&again.packet, &m_Newest) != 0 || !contained([&]() KAVO_REQUIRES(m_Mutex) { add(again); })) {
    release(again.packet);
    return std::nullopt;
  }
  return submitTime(again.packet);
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
  auto const since = std::chrono::steady_clock::now() - m_LastSubmit.load(std::memory_order_relaxed);
  return since <= interval ? interval : Time::duration{};
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

void FrameSourceHandler::setParameterSets(std::vector<std::uint8_t> sets) {
  MutexLock lock(m_Mutex);
  if (sets != m_ParameterSets) {
    m_ParameterSets.swap(sets);
    m_ParameterSetChanges.fetch_add(1, std::memory_order_release);
  }
}

std::vector<std::uint8_t> FrameSourceHandler::parameterSets() const {
  MutexLock lock(m_Mutex);
  return m_ParameterSets;
}

bool FrameSourceHandler::IsBufferFree() const { return size() < capacity; }

void FrameSourceHandler::removeFront() {
  release(m_Frames.front().packet);
  m_Frames.pop_front();
  m_Size.store(static_cast<std::uint32_t>(m_Frames.size()), std::memory_order_release);
}

// Bytes without a buffer do not belong to the queue.
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
