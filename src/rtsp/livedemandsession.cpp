#include "rtsp/livedemandsession.h"

#include <utility>

namespace kavo {

namespace {
constexpr portNumBits firstServerPort = 6970;
}

LiveDemandSession::LiveDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                     bool reuseFirstSource, unsigned estimatedBitrate)
    : OnDemandServerMediaSubsession(env, reuseFirstSource ? True : False, firstServerPort, False),
      m_FrameSourceHandler(std::move(handler)),
      m_EstimatedBitrate(estimatedBitrate) {}

void LiveDemandSession::signalNewFrame(TaskScheduler* scheduler) {
  Locked lock(m_Mutex);
  for (FramedSource* source : m_Sources) {
    wakeSource(scheduler, source);
  }
}

void LiveDemandSession::closeSession() {
  Locked lock(m_Mutex);
  for (FramedSource* source : m_Sources) {
    Medium::close(source);
  }
  m_Sources.clear();
}

FramedSource* LiveDemandSession::createNewStreamSource(unsigned /*clientSessionId*/, unsigned& estBitrate) {
  eventLoopRole.assertHeld();
  Locked lock(m_Mutex);
  estBitrate = m_EstimatedBitrate;
  FramedSource* source = openSource(m_FrameSourceHandler);
  if (source != nullptr) {
    m_Sources.insert(source);
  }
  return source;
}

void LiveDemandSession::closeStreamSource(FramedSource* inputSource) {
  eventLoopRole.assertHeld();
  Locked lock(m_Mutex);
  m_Sources.erase(inputSource);
  OnDemandServerMediaSubsession::closeStreamSource(inputSource);
  // The closed source took the streaming flag with it. One that is still open
  // (a client set up without a DESCRIBE, and another's DESCRIBE made and closed
  // its own just now) would never see a frame again.
  if (!m_Sources.empty()) {
    m_FrameSourceHandler->SetStreaming(true);
  }
}

}  // namespace kavo
