// The RTSP server: on sockets of our own, with a limit to its connections, and
// deaf to the requests that would harm other viewers. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <cstdint>
#include <list>

#include "eventloop/eventlooprole.h"
#include "server/listeningsockets.h"

namespace kavo {

class RtspConnection;

class RtspServer : public RTSPServer {
 public:
  // Null when the port (host byte order) cannot be had on every address family
  // of the machine. A client session without a sign of life is closed after
  // reclamationSeconds.
  static RtspServer* createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds)
      KAVO_REQUIRES(eventLoopRole);

  // Whether a media session of exactly this name is registered.
  bool hasSession(char const* streamName) KAVO_REQUIRES(eventLoopRole);

 protected:
  RtspServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port, unsigned reclamationSeconds)
      KAVO_REQUIRES(eventLoopRole);
  ~RtspServer() override;

  ClientConnection* createNewClientConnection(int clientSocket, sockaddr_storage const& clientAddress) override;
  ClientSession* createNewClientSession(u_int32_t sessionId) override;

 private:
  friend class RtspConnection;
  class Viewer;
  using Connections = std::list<RtspConnection*>;

  // A connection's own place among those that the server keeps.
  Connections::iterator enlist(RtspConnection& connection) KAVO_REQUIRES(eventLoopRole);
  void strike(Connections::iterator place) KAVO_REQUIRES(eventLoopRole);
  void noteHeard(Connections::iterator place) KAVO_REQUIRES(eventLoopRole);
  bool knowsSession(u_int32_t sessionId) KAVO_REQUIRES(eventLoopRole);
  void noteLiveness(u_int32_t sessionId) KAVO_REQUIRES(eventLoopRole);

  void listen() KAVO_REQUIRES(eventLoopRole);
  void rest() KAVO_REQUIRES(eventLoopRole);
  void acceptAll(int listeningSocket) KAVO_REQUIRES(eventLoopRole);
  bool acceptOne(int listeningSocket) KAVO_REQUIRES(eventLoopRole);
  bool makeRoom() KAVO_REQUIRES(eventLoopRole);
  void closeSilentAndStalled() KAVO_REQUIRES(eventLoopRole);

  ListeningSockets m_Listening;
  std::size_t const m_MaxConnections;
  Connections m_Connections;  // that which was silent longest is first
  TaskToken m_ListenAgain = nullptr;
  TaskToken m_CloseSilent = nullptr;
};

}  // namespace kavo
