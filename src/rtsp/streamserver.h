// The RTSP server, on sockets of our own and deaf to the requests that would
// harm other viewers. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <cstdint>

#include "eventloop/eventlooprole.h"
#include "eventloop/listeningsockets.h"

namespace kavo {

class StreamServer : public RTSPServer {
 public:
  // Null when the port (host byte order) cannot be had on every address family
  // of the machine. A client session without a sign of life is closed after
  // reclamationSeconds.
  static StreamServer* createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds)
      KAVO_REQUIRES(eventLoopRole);

  // Whether a media session of exactly this name is registered.
  bool hasSession(char const* streamName) KAVO_REQUIRES(eventLoopRole);

 protected:
  StreamServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port, unsigned reclamationSeconds);

  ClientConnection* createNewClientConnection(int clientSocket, sockaddr_storage const& clientAddress) override;
  ClientSession* createNewClientSession(u_int32_t sessionId) override;

 private:
  class Connection;
  class Viewer;
};

}  // namespace kavo
