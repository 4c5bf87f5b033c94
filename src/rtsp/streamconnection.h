// One client's RTSP connection. It reads requests itself, and lets live555 see
// only whole ones that it is to answer. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <chrono>
#include <list>

#include "eventloop/eventlooprole.h"
#include "rtsp/requestreader.h"

namespace kavo {

class StreamServer;

class StreamConnection : public RTSPServer::RTSPClientConnection {
 public:
  using Clock = std::chrono::steady_clock;

  StreamConnection(StreamServer& server, int clientSocket, sockaddr_storage const& clientAddress)
      KAVO_REQUIRES(eventLoopRole);
  ~StreamConnection() override;

  Clock::time_point lastHeard() const { return m_LastHeard; }
  // Whether a session that was set up or used on this connection still lives.
  bool hasSession() const KAVO_REQUIRES(eventLoopRole);
  void noteSession(u_int32_t sessionId) { m_SessionId = sessionId; }

  // Answers the request at hand with an error.
  void refuseTransport() { handleCmd_unsupportedTransport(); }
  void refuseState() { setRTSPResponse("455 Method Not Valid in This State"); }

 protected:
  void handleRequestBytes(int newBytesRead) override;

 private:
  friend class StreamServer;

  bool handleNext() KAVO_REQUIRES(eventLoopRole);
  void handleRequest() KAVO_REQUIRES(eventLoopRole);
  void answer(char const* status) KAVO_REQUIRES(eventLoopRole);

  StreamServer& m_Server;
  std::list<StreamConnection*>::iterator m_Place;  // in the server's list
  Clock::time_point m_LastHeard = Clock::now();
  u_int32_t m_SessionId = 0;
  RequestReader m_Reader;
  bool* m_Deleted = nullptr;  // set while live555 may delete this object
};

}  // namespace kavo
