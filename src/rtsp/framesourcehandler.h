// The queue of encoded frames between the host's threads and the event-loop
// thread. One per stream, shared by the stream, its demand session and the
// sources that read from it. Any thread.
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
  // One encoded frame. A packet without data is a frame for which the encoder
  // produced nothing. Its pts is the time of the submit (see submitTime()).
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

  // The queue takes ownership of the packet's bytes. The producer enforces the
  // limit: it asks IsBufferFree() before it encodes. A frame that was submitted
  // before the queue was cleared is stale, and released.
  void push(FrameData frame) KAVO_EXCLUDES(m_Mutex) { push(frame, submitTime(frame.packet)); }
  // The same where the packet's time is not that of the submit, but of the capture.
  void push(FrameData frame, std::chrono::steady_clock::time_point submitted) KAVO_EXCLUDES(m_Mutex);

  // The oldest and the newest frame; the bytes stay the queue's and are valid
  // until that frame is removed. Throws std::out_of_range on an empty queue, as pop() does.
  FrameData front() const KAVO_EXCLUDES(m_Mutex);
  FrameData back() const KAVO_EXCLUDES(m_Mutex);

  // Removes and releases the oldest frame.
  void pop() KAVO_EXCLUDES(m_Mutex);
  // Removes and releases all of them.
  void clear() KAVO_EXCLUDES(m_Mutex);
  // Queues the newest frame once more: for a stream whose host submits rarely, when a viewer
  // joins after all others have left. Returns when it was submitted, or nothing if it is no
  // key frame, not the last that the host has submitted, or no longer fresh.
  std::optional<std::chrono::steady_clock::time_point> requeueNewest() KAVO_EXCLUDES(m_Mutex);

  // Without the lock: one thread adds frames, and one removes them.
  bool empty() const { return size() == 0; }
  std::uint32_t size() const { return m_Size.load(std::memory_order_acquire); }
  // Whether one more frame may be encoded and pushed.
  bool IsBufferFree() const;

  // How old a frame may be and still be shown to a joining viewer: as long as passed between the
  // last two submits, at most a minute. 0 when the frames of the two were not both queued, or
  // the next one is late.
  std::chrono::steady_clock::duration freshness() const;

  // Back channel: key-frame requests.
  KeyFrameRequest& keyFrameRequest() { return m_KeyFrameRequest; }

  StreamObserver& observer() { return m_Observer; }

  // What the description says that a viewer needs before it can decode, in Annex B form; and
  // how often it has changed.
  void setParameterSets(std::vector<std::uint8_t> sets) KAVO_EXCLUDES(m_Mutex);
  std::vector<std::uint8_t> parameterSets() const KAVO_EXCLUDES(m_Mutex);
  unsigned parameterSetChanges() const { return m_ParameterSetChanges.load(std::memory_order_acquire); }

  // Whether a source exists that will take frames out; set on the event-loop thread.
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
  // The newest frame if it is a key frame; and how many frames were offered when the last was pushed.
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
