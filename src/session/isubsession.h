// The stream of a session, as the session sees it. Host threads, one at a time: under
// the session's lock.
#pragma once

#include "base/noncopyable.h"
#include "kavo_stream.h"

namespace kavo::impl {

class LiveDemandSession;
class StreamEnvironment;

class ISubSession : NonCopyable {
 public:
  explicit ISubSession(StreamEnvironment const& env) : m_Environment(env) {}
  virtual ~ISubSession() = default;

  // Encodes and queues one raw frame, or drops it unencoded while nobody waits
  // for it or the queue is full. Throws.
  virtual void submitFrame(unsigned char const* frame) = 0;
  // Any thread.
  virtual void status(kv_status_record& record) const = 0;

  // live555's object for this stream. It belongs to the media session that it
  // was added to.
  LiveDemandSession* mediaSession() const { return m_MediaSession; }

 protected:
  LiveDemandSession* m_MediaSession = nullptr;
  StreamEnvironment const& m_Environment;
};

}  // namespace kavo::impl
