#include "session/streamenvironment.h"

#include <MediaSink.hh>

#include "base/streamexception.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/quietusageenvironment.h"

namespace kavo {

namespace {
constexpr unsigned granularityMicroseconds = 10000;
constexpr unsigned reclamationSeconds = 65;
constexpr unsigned largestFrame = 8000000;
}  // namespace

StreamEnvironment::StreamEnvironment() {
  EventLoopRole::Holder const role(eventLoopRole);
  m_TaskScheduler.reset(EpollScheduler::createNew(granularityMicroseconds));
  if (!m_TaskScheduler) {
    throw StreamException("BasicTaskScheduler creation failed", ErrorResource);
  }
  m_UsageEnvironment.reset(QuietUsageEnvironment::createNew(*m_TaskScheduler));
  if (!m_UsageEnvironment) {
    throw StreamException("BasicUsageEnvironment creation failed", ErrorResource);
  }
  // Every sink made from now on takes one encoded frame of this size whole.
  OutPacketBuffer::maxSize = largestFrame;
  m_Tasks = std::make_unique<EventLoopTasks>(*m_TaskScheduler);
}

StreamEnvironment::~StreamEnvironment() { stop(); }

void StreamEnvironment::start(unsigned int port) {
  if (m_RTSPServer != nullptr) {
    throw StreamException("RTSP server is already initialized", ErrorAlreadyThere);
  }
  if (port == 0 || port > 65535) {
    throw StreamException("Invalid port number for RTSP server", ErrorInvalidParameter);
  }
  {
    EventLoopRole::Holder const role(eventLoopRole);
    m_RTSPServer = RtspServer::createNew(*m_UsageEnvironment, static_cast<std::uint16_t>(port), reclamationSeconds);
  }
  if (m_RTSPServer == nullptr) {
    throw StreamException("RTSPServer creation failed", ErrorResource);
  }
  m_WatchVariable = 0;
  try {
    m_Thread = std::thread([this] { run(); });
  } catch (...) {
    stop();
    throw;
  }
}

void StreamEnvironment::stop() {
  if (m_WatchVariable != 0 || m_RTSPServer == nullptr) {
    return;
  }
  m_WatchVariable = 1;
  if (m_Thread.joinable()) {
    m_Thread.join();
  }
  EventLoopRole::Holder const role(eventLoopRole);
  Medium::close(m_RTSPServer);
  m_RTSPServer = nullptr;
}

void StreamEnvironment::run() {
  EventLoopRole::Holder const role(eventLoopRole);
  m_TaskScheduler->doEventLoop(&m_WatchVariable);
}

RtspServer* StreamEnvironment::GetRTSPServer() const {
  if (m_RTSPServer == nullptr) {
    throw StreamException("RTSP server is not initialized", ErrorServerNotStarted);
  }
  return m_RTSPServer;
}

}  // namespace kavo
