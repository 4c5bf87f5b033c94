#include "session/sessionmanager.h"

#include "base/address.h"
#include "base/streamexception.h"

namespace kavo::impl {

void SessionManager::init(unsigned int port) {
  MutexLock lock(m_Mutex);
  m_MayServe = true;
  try {
    m_Environment.start(port);
    m_ParallelEncoding = m_Environment.policy().parallelEncoding;
  } catch (...) {
    m_MayServe = m_Environment.isStarted();
    throw;
  }
}

void SessionManager::exit() {
  MutexLock lock(m_Mutex);
  decltype(m_Sessions) sessions;
  {
    MutexLock registry(m_RegistryMutex);
    sessions.swap(m_Sessions);
  }
  for (auto const& [handle, session] : sessions) {
    session->end([] {});  // waits for a submit in progress
  }
  m_Environment.stop();
  m_MayServe = false;
}

std::shared_ptr<Session> SessionManager::sessionOf(void* handle) {
  MutexLock registry(m_RegistryMutex);
  return m_Sessions.at(handle);
}

// Everything that can fail comes first; the media session goes live last.
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
  {
    MutexLock registry(m_RegistryMutex);
    m_Sessions.emplace(information.handle, session);
  }
  try {
    m_Environment.runOnLoop([&] { server->addServerMediaSession(session->mediaSession()); });
  } catch (...) {
    MutexLock registry(m_RegistryMutex);
    m_Sessions.erase(information.handle);
    throw;
  }
  session->setRegistered();
}

void SessionManager::removeSession(void* handle) {
  MutexLock lock(m_Mutex);
  auto const session = sessionOf(handle);
  RtspServer* const server = m_Environment.GetRTSPServer();
  session->end([&]() KAVO_NO_ANALYSIS {
    m_Environment.runOnLoop([&] {
      eventLoopRole.assertHeld();
      server->removeSession(session->mediaSession());
    });
  });
  MutexLock registry(m_RegistryMutex);
  m_Sessions.erase(handle);
}

void SessionManager::sessionInfo(SessionInformation& information) {
  MutexLock lock(m_Mutex);
  auto const session = sessionOf(information.handle);
  information.name = session->streamName();
  information.info = session->streamInfo();
  information.description = session->streamDescription();
  information.url = urlOf(*session);
}

void SessionManager::addStream(void* handle, void*& streamId, ICodecParameter const* parameter) {
  MutexLock lock(m_Mutex);
  auto const session = sessionOf(handle);
  session->addStream(parameter);
  streamId = session->stream().get();
}

void SessionManager::status(void* handle, void* streamId, kv_status_record& record) {
  requireHealth();
  sessionOf(handle)->status(streamId, record);
}

// Uses the machine's current address. live555 would choose one for the life of the process,
// and ask DNS if it finds none.
std::string SessionManager::urlOf(Session& session) const {
  m_Environment.GetRTSPServer();
  auto const& own = m_Environment.policy().delivery.address;
  std::string const address = own.empty() ? machineAddress() : own;
  std::string const host = address.find(':') != std::string::npos ? "[" + address + "]" : address;
  unsigned const port = m_Environment.port();
  return "rtsp://" + host + (port == 554 ? "" : ":" + std::to_string(port)) + "/" + session.streamName();
}

}  // namespace kavo::impl
