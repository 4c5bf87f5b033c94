// A pending key-frame request.
#pragma once

#include <atomic>
#include <chrono>

namespace kavo::impl {

// Key frames are several times larger than others, so requests coalesce and are granted at
// most once per interval, however many viewers join.
class KeyFrameRequest {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::milliseconds interval{500};

  // Event-loop thread.
  void ask() { m_Asked.store(true, std::memory_order_relaxed); }
  // Event-loop thread: a regular key frame has satisfied the request.
  void withdraw() { m_Asked.store(false, std::memory_order_relaxed); }

  // Any thread.
  bool isPending() const { return m_Asked.load(std::memory_order_relaxed); }

  // Host thread, before each frame: whether this one must be a key frame.
  bool take(Clock::time_point now) {
    bool const isDue = isPending() && mayAsk(now);
    if (isDue) {
      grant(now);
    }
    return isDue;
  }
  // Host threads, if the host encodes: whether it may be asked for a key frame; and call when it
  // has submitted one.
  bool mayAsk(Clock::time_point now) const { return now - m_LastTaken >= interval; }
  void grant(Clock::time_point now) {
    m_Asked.store(false, std::memory_order_relaxed);
    m_LastTaken = now;
  }

 private:
  std::atomic<bool> m_Asked = false;
  Clock::time_point m_LastTaken{Clock::duration::min() / 2};  // host threads, under the session's lock
};

}  // namespace kavo::impl
