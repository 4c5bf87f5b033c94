#include "session/sessionmanager.h"

#include "base/statuspage.h"
#include "base/streamexception.h"

namespace kavo::impl {

void SessionManager::init(unsigned int port) {
  MutexLock lock(m_Mutex);
  status::open();
  m_MayServe = true;
  try {
    m_Environment.start(port);
  } catch (...) {
    m_MayServe = m_Environment.isStarted();
    throw;
  }
}

void SessionManager::exit() {
  MutexLock lock(m_Mutex);
  m_Environment.stop();
  decltype(m_Sessions)().swap(m_Sessions);  // and its memory, when the library is unloaded
  m_MayServe = false;
}

// Steps that can fail come first; the media session goes live last.
void SessionManager::addSession(SessionInformation& information) {
  MutexLock lock(m_Mutex);
  RtspServer* const server = m_Environment.GetRTSPServer();
  auto const nameTaken = [&] {
    eventLoopRole.assertHeld();
    return server->hasSession(information.name.c_str());
  };
  if (m_Environment.runOnLoop(nameTaken)) {
    throw StreamException("Session name already in use", ErrorNameInUse);
  }
  auto session = std::make_shared<Session>(m_Environment, information.name, information.info, information.description);
  information.url = urlOf(*session);
  information.handle = session.get();
  auto const place = m_Sessions.emplace(information.handle, session).first;
  try {
    m_Environment.runOnLoop([&] { server->addServerMediaSession(session->mediaSession()); });
  } catch (...) {
    m_Sessions.erase(place);
    throw;
  }
  session->setRegistered();
}

void SessionManager::removeSession(void* handle) {
  MutexLock lock(m_Mutex);
  auto const session = m_Sessions.at(handle);
  RtspServer* const server = m_Environment.GetRTSPServer();
  m_Environment.runOnLoop([&] {
    eventLoopRole.assertHeld();
    server->removeSession(session->mediaSession());
  });
  m_Sessions.erase(handle);
}

void SessionManager::sessionInfo(SessionInformation& information) {
  MutexLock lock(m_Mutex);
  auto const session = m_Sessions.at(information.handle);
  information.name = session->streamName();
  information.info = session->streamInfo();
  information.description = session->streamDescription();
  information.url = urlOf(*session);
}

void SessionManager::addStream(void* handle, void*& streamId, ICodecParameter const* parameter) {
  MutexLock lock(m_Mutex);
  auto const session = m_Sessions.at(handle);
  session->addStream(parameter);
  streamId = session->stream().get();
}

void SessionManager::submitData(void* handle, void* streamId, unsigned char const* frame) {
  MutexLock lock(m_Mutex);
  m_Environment.requireHealth();
  auto const session = m_Sessions.at(handle);
  session->submitData(streamId, frame);
}

std::string SessionManager::urlOf(Session& session) const {
  RtspServer const* const server = m_Environment.GetRTSPServer();
  return m_Environment.runOnLoop([&] {
    // No particular connection: the URL carries the machine's own address.
    std::unique_ptr<char[]> const url(server->rtspURL(session.mediaSession(), -1));
    return std::string(url.get());
  });
}

}  // namespace kavo::impl
