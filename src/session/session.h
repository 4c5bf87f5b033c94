// One RTSP presentation under one URL, with at most one stream. Host threads, one at a
// time except for submit().
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "base/noncopyable.h"
#include "base/threadannotations.h"
#include "codec/codecparameter.h"
#include "session/isubsession.h"

class ServerMediaSession;

namespace kavo::impl {

class StreamEnvironment;

class Session : NonCopyable {
 public:
  // Creates the media session. Throws "Invalid session parameter" for an empty string.
  Session(StreamEnvironment const& env, std::string const& name, std::string const& info,
          std::string const& description);
  // Closes the media session unless it was registered.
  virtual ~Session();

  virtual std::string streamName() { return m_StreamName; }
  virtual std::string streamInfo() { return m_StreamInfo; }
  virtual std::string streamDescription() { return m_StreamDescription; }
  virtual ServerMediaSession* mediaSession() { return m_MediaSession; }

  // The RTSP server owns the media session from now on.
  void setRegistered() { m_Registered = true; }

  // Creates the session's stream. A failure changes nothing.
  void addStream(ICodecParameter const* param) KAVO_EXCLUDES(m_Mutex);
  std::shared_ptr<ISubSession> stream() KAVO_EXCLUDES(m_Mutex) {
    MutexLock lock(m_Mutex);
    return m_Stream;
  }
  // Calls the function with the stream; throws "Invalid stream ID" unless streamId is its
  // address. Any number of threads; calls are serialized.
  template <class Function>
  void submit(void* streamId, Function const& function) KAVO_EXCLUDES(m_Mutex) {
    MutexLock lock(m_Mutex);
    function(streamOf(streamId));
  }
  // The same for callers that exclude all other calls.
  template <class Function>
  void submitAlone(void* streamId, Function const& function) KAVO_NO_ANALYSIS {
    function(streamOf(streamId));
  }
  // Throws as submit() does. Does not wait for submits.
  void status(void* streamId, kv_status_record& record) const;
  // Calls the function while no submit is in progress. Unless it throws, later submits find
  // no session.
  template <class Function>
  void end(Function const& function) KAVO_EXCLUDES(m_Mutex) {
    MutexLock lock(m_Mutex);
    function();
    m_Ended = true;
  }

 private:
  ISubSession& streamOf(void* streamId) KAVO_REQUIRES(m_Mutex);

  std::string m_StreamName;
  std::string m_StreamInfo;
  std::string m_StreamDescription;
  ServerMediaSession* m_MediaSession = nullptr;
  bool m_Registered = false;
  Mutex m_Mutex;
  bool m_Ended KAVO_GUARDED_BY(m_Mutex) = false;
  std::shared_ptr<ISubSession> m_Stream KAVO_GUARDED_BY(m_Mutex);
  std::atomic<ISubSession const*> m_StreamToAsk = nullptr;  // m_Stream, readable without the lock
  StreamEnvironment const& m_Environment;
};

}  // namespace kavo::impl
