// The registry of sessions and the owner of the live555 run-time. Its lock serializes the
// host's commands; if the policy lets streams encode in parallel, a submit takes only its
// session's lock. Any number of host threads.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <unordered_map>

#include "base/noncopyable.h"
#include "base/threadannotations.h"
#include "codec/codecparameter.h"
#include "session/session.h"
#include "session/streamenvironment.h"

namespace kavo::impl {

// A handle is the address of a Session. Unknown handles throw std::out_of_range.
class SessionManager : NonCopyable {
 public:
  struct SessionInformation {
    void* handle = nullptr;
    std::string name;
    std::string info;
    std::string description;
    std::string url;
  };

  SessionManager() = default;
  virtual ~SessionManager() = default;

  // Starts serving on the port. Throws what StreamEnvironment::start() throws.
  void init(unsigned int port) KAVO_EXCLUDES(m_Mutex);
  // Stops the server and drops all sessions.
  void exit() KAVO_EXCLUDES(m_Mutex);
  // Whether there is a server, or one is being started or stopped. Any thread; takes no lock.
  bool mayServe() const { return m_MayServe; }

  // In: name, info, description; out: handle, url.
  void addSession(SessionInformation& information) KAVO_EXCLUDES(m_Mutex);
  void removeSession(void* handle) KAVO_EXCLUDES(m_Mutex);
  // In: handle; out: the strings.
  void sessionInfo(SessionInformation& information) KAVO_EXCLUDES(m_Mutex);

  // Writes streamId only on success.
  void addStream(void* handle, void*& streamId, ICodecParameter const* parameter) KAVO_EXCLUDES(m_Mutex);
  // Scales, encodes and queues the frame before returning.
  void submitData(void* handle, void* streamId, unsigned char const* frame) KAVO_EXCLUDES(m_Mutex) {
    submit(handle, streamId, [=](ISubSession& stream) { stream.submitFrame(frame); });
  }
  // Copies and queues the frame. Returns flags of kv_wanted.
  std::uint32_t submitEncoded(void* handle, void* streamId, EncodedFrame const& frame) KAVO_EXCLUDES(m_Mutex) {
    std::uint32_t wanted = 0;
    submit(handle, streamId, [&](ISubSession& stream) { wanted = stream.submitEncoded(frame); });
    return wanted;
  }
  // Fills in the stream's status. Does not wait for submits.
  void status(void* handle, void* streamId, kv_status_record& record) KAVO_EXCLUDES(m_RegistryMutex);

 private:
  template <class Function>
  void submit(void* handle, void* streamId, Function const& function) KAVO_EXCLUDES(m_Mutex);
  std::string urlOf(Session& session) const KAVO_REQUIRES(m_Mutex);
  // Throws std::out_of_range.
  std::shared_ptr<Session> sessionOf(void* handle) KAVO_EXCLUDES(m_RegistryMutex);
  // Likewise. The map changes only under both locks, so either suffices to read it.
  Session& sessionUnderLock(void* handle) KAVO_REQUIRES(m_Mutex) KAVO_NO_ANALYSIS { return *m_Sessions.at(handle); }
  // Only reads an atomic flag.
  void requireHealth() const KAVO_NO_ANALYSIS { m_Environment.requireHealth(); }

  RecursiveMutex m_Mutex;
  std::atomic<bool> m_ParallelEncoding = false;
  Mutex m_RegistryMutex;
  std::unordered_map<void*, std::shared_ptr<Session>> m_Sessions KAVO_GUARDED_BY(m_RegistryMutex);
  std::atomic<bool> m_MayServe = false;
  StreamEnvironment m_Environment KAVO_GUARDED_BY(m_Mutex);
};

template <class Function>
void SessionManager::submit(void* handle, void* streamId, Function const& function) {
  if (m_ParallelEncoding) {
    requireHealth();
    sessionOf(handle)->submit(streamId, function);
    return;
  }
  MutexLock lock(m_Mutex);
  m_Environment.requireHealth();
  sessionUnderLock(handle).submitAlone(streamId, function);
}

}  // namespace kavo::impl
