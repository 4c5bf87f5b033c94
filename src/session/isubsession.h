// A session's stream. Host threads, one at a time, under the session's lock.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "base/noncopyable.h"
#include "kavo_stream.h"

namespace kavo::impl {

class FrameSourceHandler;
class LiveDemandSession;
class StreamEnvironment;

// A frame that the host has encoded.
struct EncodedFrame {
  static constexpr std::size_t largest = 8000000;  // bytes

  std::span<std::uint8_t const> bytes;
  std::optional<std::chrono::steady_clock::time_point> captured;
};

class ISubSession : NonCopyable {
 public:
  explicit ISubSession(StreamEnvironment const& env);
  virtual ~ISubSession() = default;

  // Encodes and queues one raw frame, or drops it unencoded if no viewer wants it or the
  // queue is full. Throws.
  virtual void submitFrame(unsigned char const* frame);
  // Queues an encoded frame, or drops it as submitFrame() does. Returns flags of kv_wanted
  // for the next frame. Throws.
  virtual std::uint32_t submitEncoded(EncodedFrame const& frame);
  // Any thread.
  void status(kv_status_record& record) const;

  // live555's object for this stream, owned by the media session that it was added to.
  LiveDemandSession* mediaSession() const { return m_MediaSession; }

 protected:
  // Counts a submitted frame. Whether somebody watches and the queue has room.
  bool isWanted();
  // Call after a frame was queued.
  void signal();

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  LiveDemandSession* m_MediaSession = nullptr;
  StreamEnvironment const& m_Environment;
};

}  // namespace kavo::impl
