// The queue of encoded frames between host threads and the event-loop thread. Each stream
// has one, shared by the stream, its demand session and the sources that read from it.
// Any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "base/noncopyable.h"
#include "base/threadannotations.h"
#include "operate/observer.h"
#include "rtsp/keyframerequest.h"

extern "C" {
#include <libavcodec/packet.h>
}

namespace kavo::impl {

class FrameSourceHandler : NonCopyable {
 public:
  // One encoded frame. A packet without data is a frame that the encoder skipped. The
  // packet's pts is the time of the submit (see submitTime()).
  struct FrameData {
    AVPacket packet;
  };

  // When the host submitted the frame, to the microsecond.
  static std::chrono::steady_clock::time_point submitTime(AVPacket const& packet) {
    return std::chrono::steady_clock::time_point(std::chrono::microseconds(packet.pts));
  }
  static void setSubmitTime(AVPacket& packet, std::chrono::steady_clock::time_point time) {
    packet.pts = std::chrono::ceil<std::chrono::microseconds>(time.time_since_epoch()).count();
  }

  FrameSourceHandler() = default;
  ~FrameSourceHandler();

  // Takes ownership of the packet's bytes. The producer enforces the limit by calling
  // IsBufferFree() before it encodes. A frame submitted before the queue was last cleared is
  // stale, and released.
  void push(FrameData frame) KAVO_EXCLUDES(m_Mutex) { push(frame, submitTime(frame.packet)); }
  // The same for packets whose time is that of the capture rather than the submit.
  void push(FrameData frame, std::chrono::steady_clock::time_point submitted) KAVO_EXCLUDES(m_Mutex);

  // The oldest and the newest frame. The queue owns the bytes, which are valid until that
  // frame is removed. Throws std::out_of_range if the queue is empty, as pop() does.
  FrameData front() const KAVO_EXCLUDES(m_Mutex);
  FrameData back() const KAVO_EXCLUDES(m_Mutex);

  // Removes and releases the oldest frame.
  void pop() KAVO_EXCLUDES(m_Mutex);
  // Removes and releases all frames.
  void clear() KAVO_EXCLUDES(m_Mutex);
  // Queues the newest frame again, for a viewer that joins after all others have left a stream
  // whose host rarely submits. Returns when it was submitted; nullopt if it is not a key frame,
  // not the last frame submitted, or no longer fresh.
  std::optional<std::chrono::steady_clock::time_point> requeueNewest() KAVO_EXCLUDES(m_Mutex);

  // These take no lock: one thread adds frames, and one removes them.
  bool empty() const { return size() == 0; }
  std::uint32_t size() const { return m_Size.load(std::memory_order_acquire); }
  // Whether one more frame may be encoded and pushed.
  bool IsBufferFree() const;

  // The maximum age of a frame to show to a joining viewer: the time between the last two
  // submits, at most a minute; 0 if either frame was not queued, or the next one is late.
  std::chrono::steady_clock::duration freshness() const;

  // The back channel for key-frame requests.
  KeyFrameRequest& keyFrameRequest() { return m_KeyFrameRequest; }

  StreamObserver& observer() { return m_Observer; }

  // The parameter sets for the SDP in Annex B form, and how often they have changed.
  void setParameterSets(std::vector<std::uint8_t> sets) KAVO_EXCLUDES(m_Mutex);
  std::vector<std::uint8_t> parameterSets() const KAVO_EXCLUDES(m_Mutex);
  unsigned parameterSetChanges() const { return m_ParameterSetChanges.load(std::memory_order_acquire); }

  // Whether a source exists that removes frames; set on the event-loop thread.
  bool IsStreaming() const { return m_Streaming.load(std::memory_order_relaxed); }
  void SetStreaming(bool streaming) { m_Streaming.store(streaming, std::memory_order_relaxed); }

 private:
  using Time = std::chrono::steady_clock::time_point;

  static void release(AVPacket& packet);
  void keep(AVPacket const& packet) KAVO_REQUIRES(m_Mutex);
  void add(FrameData const& frame) KAVO_REQUIRES(m_Mutex);
  void removeFront() KAVO_REQUIRES(m_Mutex);
  void requireFrame() const KAVO_REQUIRES(m_Mutex);

  mutable Mutex m_Mutex;
  std::deque<FrameData> m_Frames KAVO_GUARDED_BY(m_Mutex);
  std::atomic<std::uint32_t> m_Size = 0;  // of m_Frames; changed under the lock
  Time m_Cleared KAVO_GUARDED_BY(m_Mutex){};
  // The newest frame if it is a key frame, and Count::Offered at the last push.
  AVPacket m_Newest KAVO_GUARDED_BY(m_Mutex){};
  std::uint64_t m_NewestOffered KAVO_GUARDED_BY(m_Mutex) = 0;
  std::vector<std::uint8_t> m_ParameterSets KAVO_GUARDED_BY(m_Mutex);
  std::atomic<unsigned> m_ParameterSetChanges = 0;
  std::atomic<Time> m_LastSubmit{Time{}};
  std::atomic<Time::duration> m_SubmitInterval{Time::duration{}};
  std::atomic<bool> m_Streaming = false;
  KeyFrameRequest m_KeyFrameRequest;
  StreamObserver m_Observer;
};

}  // namespace kavo::impl
