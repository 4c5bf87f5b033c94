// One RTSP presentation under one URL, with at most one stream. Host threads,
// one at a time.
#pragma once

#include <memory>
#include <string>

#include "codec/codecparameter.h"
#include "session/isubsession.h"

class ServerMediaSession;

namespace kavo::impl {

class StreamEnvironment;

class Session {
 public:
  // Creates the media session. Throws "Invalid session parameter" for an empty string.
  Session(StreamEnvironment const& env, std::string const& name, std::string const& info,
          std::string const& description);
  // Closes the media session, unless it was registered.
  virtual ~Session();
  Session(Session const&) = delete;
  Session& operator=(Session const&) = delete;

  virtual std::string streamName() { return m_StreamName; }
  virtual std::string streamInfo() { return m_StreamInfo; }
  virtual std::string streamDescription() { return m_StreamDescription; }
  virtual ServerMediaSession* mediaSession() { return m_MediaSession; }

  // The media session belongs to the RTSP server from now on.
  void setRegistered() { m_Registered = true; }

  // Creates the session's one stream. A failure changes nothing.
  void addStream(ICodecParameter const* param);
  std::shared_ptr<ISubSession> stream() { return m_Stream; }
  // Hands a raw frame to the stream; throws "Invalid stream ID" unless streamId
  // is the address of it.
  void submitData(void* streamId, unsigned char const* frame);

 private:
  std::string m_StreamName;
  std::string m_StreamInfo;
  std::string m_StreamDescription;
  ServerMediaSession* m_MediaSession = nullptr;
  bool m_Registered = false;
  std::shared_ptr<ISubSession> m_Stream;
  StreamEnvironment const& m_Environment;
};

}  // namespace kavo::impl
