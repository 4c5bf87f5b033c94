#include "server/rtspserver.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <utility>

#include "server/rtspconnection.h"
#include "server/transport.h"

namespace kavo {

namespace {

// A client that wants a stream says so within this time; only a session may be silent for longer.
constexpr std::chrono::seconds silence{30};
constexpr std::int64_t silenceCheckMicroseconds = 1000000;
// How long no connections are accepted when the process is out of descriptors.
constexpr std::int64_t restMicroseconds = 100000;
// Per pass of the loop, so that others have their turn.
constexpr int acceptsInARow = 16;

// Half of the descriptors that the process may have: the others are the host's.
std::size_t maxConnections() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_cur / 2, 4096));
}

}  // namespace

// One client's session.
class RtspServer::Viewer : public RTSPServer::RTSPClientSession {
 public:
  Viewer(RtspServer& server, u_int32_t sessionId) : RTSPClientSession(server, sessionId) {}

  void noteHeard() { noteLiveness(); }

 protected:
  void handleCmd_SETUP(RTSPClientConnection* connection, char const* urlPreSuffix, char const* urlSuffix,
                       char const* fullRequestStr) override {
    eventLoopRole.assertHeld();
    auto* const ours = static_cast<RtspConnection*>(connection);
    if (isSetUp()) {
      ours->refuseState();
      return;
    }
    auto const transport = acceptableTransport(fullRequestStr);
    if (!transport) {
      // Above all raw UDP and requests without ports: live555 would make a
      // stream without RTP of them, and share it with all who come later.
      ours->refuseTransport();
      return;
    }
    ours->noteSession(fOurSessionId);
    // live555 reads the transport from the request's text, wherever it finds
    // the word; it gets nothing else to read.
    std::string const request = "SETUP\r\nTransport: " + *transport + "\r\n\r\n";
    RTSPClientSession::handleCmd_SETUP(connection, urlPreSuffix, urlSuffix, request.c_str());
  }

  void handleCmd_withinSession(RTSPClientConnection* connection, char const* cmdName, char const* urlPreSuffix,
                               char const* urlSuffix, char const* fullRequestStr) override {
    eventLoopRole.assertHeld();
    static_cast<RtspConnection*>(connection)->noteSession(fOurSessionId);
    RTSPClientSession::handleCmd_withinSession(connection, cmdName, urlPreSuffix, urlSuffix, fullRequestStr);
  }

 private:
  bool isSetUp() const {
    return std::any_of(fStreamStates, fStreamStates + (fStreamStates != nullptr ? fNumStreamStates : 0),
                       [](streamState const& state) { return state.streamToken != nullptr; });
  }
};

RtspServer* RtspServer::createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds) {
  auto sockets = listenOnPort(port);
  return sockets ? new RtspServer(env, std::move(*sockets), port, reclamationSeconds) : nullptr;
}

// live555 gets no sockets to listen on: it would accept one connection a pass,
// and spin when the process is out of descriptors.
RtspServer::RtspServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port, unsigned reclamationSeconds)
    : RTSPServer(env, -1, -1, Port(port), nullptr, reclamationSeconds),
      m_Listening(std::move(sockets)),
      m_MaxConnections(maxConnections()) {
  listen();
  closeSilentAndStalled();
}

RtspServer::~RtspServer() {
  eventLoopRole.assertHeld();
  rest();
  envir().taskScheduler().unscheduleDelayedTask(m_ListenAgain);
  envir().taskScheduler().unscheduleDelayedTask(m_CloseSilent);
  while (!m_Connections.empty()) {
    delete m_Connections.front();
  }
}

bool RtspServer::hasSession(char const* streamName) { return getServerMediaSession(streamName) != nullptr; }

void RtspServer::noteLiveness(u_int32_t sessionId) {
  if (auto* const viewer = static_cast<Viewer*>(lookupClientSession(sessionId))) {
    viewer->noteHeard();
  }
}

bool RtspServer::knowsSession(u_int32_t sessionId) { return lookupClientSession(sessionId) != nullptr; }

GenericMediaServer::ClientConnection* RtspServer::createNewClientConnection(int clientSocket,
                                                                            sockaddr_storage const& clientAddress) {
  eventLoopRole.assertHeld();
  return new RtspConnection(*this, clientSocket, clientAddress);
}

GenericMediaServer::ClientSession* RtspServer::createNewClientSession(u_int32_t sessionId) {
  eventLoopRole.assertHeld();
  return new Viewer(*this, sessionId);
}

RtspServer::Connections::iterator RtspServer::enlist(RtspConnection& connection) {
  return m_Connections.insert(m_Connections.end(), &connection);
}

void RtspServer::strike(Connections::iterator place) { m_Connections.erase(place); }

void RtspServer::noteHeard(Connections::iterator place) {
  m_Connections.splice(m_Connections.end(), m_Connections, place);
}

void RtspServer::listen() {
  auto const watch = [this](Descriptor const& socket, TaskScheduler::BackgroundHandlerProc* handler) {
    envir().taskScheduler().turnOnBackgroundReadHandling(socket.get(), handler, this);
  };
  watch(m_Listening.ipv4, [](void* server, int) {
    eventLoopRole.assertHeld();
    auto* const self = static_cast<RtspServer*>(server);
    self->acceptAll(self->m_Listening.ipv4.get());
  });
  watch(m_Listening.ipv6, [](void* server, int) {
    eventLoopRole.assertHeld();
    auto* const self = static_cast<RtspServer*>(server);
    self->acceptAll(self->m_Listening.ipv6.get());
  });
}

void RtspServer::rest() {
  envir().taskScheduler().turnOffBackgroundReadHandling(m_Listening.ipv4.get());
  envir().taskScheduler().turnOffBackgroundReadHandling(m_Listening.ipv6.get());
}

void RtspServer::acceptAll(int listeningSocket) {
  for (int i = 0; i < acceptsInARow && acceptOne(listeningSocket); ++i) {
  }
}

// False when nobody waits any more, or there is no descriptor to take him in with.
bool RtspServer::acceptOne(int listeningSocket) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  Descriptor client(
      accept4(listeningSocket, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.get() >= 0) {
    if (m_Connections.size() < m_MaxConnections || makeRoom()) {
      createNewClientConnection(client.release(), address);
    }
    return true;
  }
  if (errno == EINTR || errno == ECONNABORTED) {
    return true;
  }
  bool const full = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
  if (full && !makeRoom()) {
    // Who waits stays in the backlog; until there is room the loop would only spin.
    rest();
    m_ListenAgain = envir().taskScheduler().scheduleDelayedTask(
        restMicroseconds,
        [](void* server) {
          eventLoopRole.assertHeld();
          static_cast<RtspServer*>(server)->listen();
        },
        this);
    return false;
  }
  return full;
}

// Closes the connection that was silent longest: of those that never said a word,
// so that a crowd of such cannot push out who is about to set a session up, else
// of those without a session. False when there is none.
bool RtspServer::makeRoom() {
  auto const close = [](auto const& range, auto const& unwanted) {
    auto const found = std::find_if(range.begin(), range.end(), unwanted);
    if (found != range.end()) {
      delete *found;
      return true;
    }
    return false;
  };
  return close(m_Connections, [](RtspConnection const* connection) { return !connection->hasSpoken(); }) ||
         close(m_Connections, [](RtspConnection const* connection) {
           eventLoopRole.assertHeld();
           return !connection->hasSession();
         });
}

void RtspServer::closeSilentAndStalled() {
  auto const limit = RtspConnection::Clock::now() - silence;
  for (auto place = m_Connections.begin(); place != m_Connections.end();) {
    RtspConnection* const connection = *place++;
    bool const silent = connection->lastHeard() < limit && !connection->hasSession();
    if (silent || connection->isStalled()) {
      delete connection;
    } else {
      connection->noteProgress();
    }
  }
  m_CloseSilent = envir().taskScheduler().scheduleDelayedTask(
      silenceCheckMicroseconds,
      [](void* server) {
        eventLoopRole.assertHeld();
        static_cast<RtspServer*>(server)->closeSilentAndStalled();
      },
      this);
}

}  // namespace kavo
