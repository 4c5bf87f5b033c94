#include "session/isubsession.h"

#include "base/streamexception.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/livedemandsession.h"
#include "session/streamenvironment.h"

namespace kavo::impl {

ISubSession::ISubSession(StreamEnvironment const& env)
    : m_FrameSourceHandler(std::make_shared<FrameSourceHandler>()), m_Environment(env) {}

void ISubSession::submitFrame(unsigned char const* /*frame*/) {
  throw StreamException("The stream takes encoded frames", ErrorInvalidParameter);
}

std::uint32_t ISubSession::submitEncoded(EncodedFrame const& /*frame*/) {
  throw StreamException("The stream takes raw frames", ErrorInvalidParameter);
}

bool ISubSession::isWanted() {
  auto& observer = m_FrameSourceHandler->observer();
  observer.add(Count::Offered);
  if (!m_FrameSourceHandler->IsStreaming()) {
    observer.add(Count::Unwatched);
    return false;
  }
  if (!m_FrameSourceHandler->IsBufferFree()) {
    observer.add(Count::QueueFull);
    return false;
  }
  return true;
}

void ISubSession::signal() { m_MediaSession->signalNewFrame(m_Environment.GetTaskScheduler()); }

void ISubSession::status(kv_status_record& record) const {
  auto const& observer = m_FrameSourceHandler->observer();
  record.viewers = observer.watching();
  record.wanted = std::uint32_t{m_FrameSourceHandler->IsStreaming()} * KV_WANTS_FRAME |
                  std::uint32_t{m_FrameSourceHandler->keyFrameRequest().isPending()} * KV_WANTS_KEY_FRAME;
  record.offered = observer[Count::Offered];
  record.encoded = observer[Count::Encoded];
  record.unwatched = observer[Count::Unwatched];
  record.failed = observer[Count::Failed];
  record.sent_frames = observer[Count::SentFrames];
  record.sent_bytes = observer[Count::SentBytes];
}

}  // namespace kavo::impl
