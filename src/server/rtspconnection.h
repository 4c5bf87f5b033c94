// One client's RTSP connection. It reads requests itself, and lets live555 see
// only whole ones that it is to answer. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <chrono>
#include <list>
#include <memory>

#include "delivery/interleavedwriter.h"
#include "eventloop/eventlooprole.h"
#include "server/requestreader.h"

namespace kavo {

class RtspServer;

class RtspConnection : public RTSPServer::RTSPClientConnection {
 public:
  using Clock = std::chrono::steady_clock;

  RtspConnection(RtspServer& server, int clientSocket, sockaddr_storage const& clientAddress)
      KAVO_REQUIRES(eventLoopRole);
  ~RtspConnection() override;

  // Whether the client has said anything yet.
  bool hasSpoken() const { return m_HasSpoken; }
  Clock::time_point lastHeard() const { return m_LastHeard; }
  // Whether a session that was set up or used on this connection still lives.
  bool hasSession() const KAVO_REQUIRES(eventLoopRole);
  void noteSession(u_int32_t sessionId) { m_SessionId = sessionId; }
  // A viewer who takes pictures is alive, even if it says nothing.
  void noteProgress() KAVO_REQUIRES(eventLoopRole);
  // Whether a viewer on it has taken nothing for too long.
  bool isStalled() const { return m_Output->isStalled(); }

  // Answers the request at hand with an error.
  void refuseTransport() { handleCmd_unsupportedTransport(); }
  void refuseState() { setRTSPResponse("455 Method Not Valid in This State"); }

 protected:
  void handleRequestBytes(int newBytesRead) override;

 private:
  friend class RtspServer;

  static void onSocket(void* connection, int conditions);
  void waitForRoom(bool wait) KAVO_REQUIRES(eventLoopRole);
  void handleAll() KAVO_REQUIRES(eventLoopRole);
  bool handleNext() KAVO_REQUIRES(eventLoopRole);
  void handleRequest() KAVO_REQUIRES(eventLoopRole);
  void answer(char const* status) KAVO_REQUIRES(eventLoopRole);

  RtspServer& m_Server;
  std::list<RtspConnection*>::iterator m_Place;  // in the server's list
  Clock::time_point m_LastHeard = Clock::now();
  bool m_HasSpoken = false;
  u_int32_t m_SessionId = 0;
  RequestReader m_Reader;
  std::shared_ptr<InterleavedWriter> m_Output;
  // live555 may delete this object inside its handlers; who goes on holds a copy.
  std::shared_ptr<bool> m_Alive = std::make_shared<bool>(true);
};

}  // namespace kavo
