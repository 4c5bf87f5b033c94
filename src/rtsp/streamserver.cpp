#include "rtsp/streamserver.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <utility>

#include "rtsp/transportheader.h"

namespace kavo {

// One client's TCP connection.
class StreamServer::Connection : public RTSPServer::RTSPClientConnection {
 public:
  Connection(StreamServer& server, int clientSocket, sockaddr_storage const& clientAddress)
      : RTSPClientConnection(server, clientSocket, clientAddress) {
    // A packet leaves in several writes; without this the last of them would
    // wait for the client's delayed acknowledgement of the first, 40 ms.
    int const on = 1;
    setsockopt(clientSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  }

  void refuseTransport() { handleCmd_unsupportedTransport(); }
};

// One client's session.
class StreamServer::Viewer : public RTSPServer::RTSPClientSession {
 public:
  Viewer(StreamServer& server, u_int32_t sessionId) : RTSPClientSession(server, sessionId) {}

 protected:
  void handleCmd_SETUP(RTSPClientConnection* connection, char const* urlPreSuffix, char const* urlSuffix,
                       char const* fullRequestStr) override {
    eventLoopRole.assertHeld();
    auto const transport = acceptableTransport(fullRequestStr);
    if (!transport) {
      // Above all raw UDP and requests without ports: live555 would make a
      // stream without RTP of them, and share it with all who come later.
      static_cast<Connection*>(connection)->refuseTransport();
      return;
    }
    // live555 reads the transport from the request's text, wherever it finds
    // the word; it gets nothing else to read.
    std::string const request = "SETUP\r\nTransport: " + *transport + "\r\n\r\n";
    RTSPClientSession::handleCmd_SETUP(connection, urlPreSuffix, urlSuffix, request.c_str());
  }
};

StreamServer* StreamServer::createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds) {
  auto sockets = listenOnPort(port);
  return sockets ? new StreamServer(env, std::move(*sockets), port, reclamationSeconds) : nullptr;
}

StreamServer::StreamServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port,
                           unsigned reclamationSeconds)
    : RTSPServer(env, sockets.ipv4.release(), sockets.ipv6.release(), Port(port), nullptr, reclamationSeconds) {}

bool StreamServer::hasSession(char const* streamName) { return getServerMediaSession(streamName) != nullptr; }

GenericMediaServer::ClientConnection* StreamServer::createNewClientConnection(int clientSocket,
                                                                              sockaddr_storage const& clientAddress) {
  eventLoopRole.assertHeld();
  return new Connection(*this, clientSocket, clientAddress);
}

GenericMediaServer::ClientSession* StreamServer::createNewClientSession(u_int32_t sessionId) {
  eventLoopRole.assertHeld();
  return new Viewer(*this, sessionId);
}

}  // namespace kavo
