#include "server/rtspserver.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "base/address.h"
#include "eventloop/memoryreserve.h"
#include "operate/observer.h"
#include "server/clientsession.h"
#include "server/rtspconnection.h"

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

// Idle timeout of connections without a stream.
constexpr auto idleTimeout = 30s;
constexpr auto idleCheckInterval = 1s;
// How long no connections are accepted when the process is out of descriptors.
constexpr auto acceptRetryDelay = 100ms;
// Per pass of the loop, so that others have their turn.
constexpr int acceptsInARow = 16;

std::unique_ptr<UserAuthenticationDatabase> databaseOf(Policy const& policy) {
  if (policy.users.empty()) {
    return nullptr;
  }
  auto database = std::make_unique<UserAuthenticationDatabase>(policy.realm.c_str(), False);
  for (auto const& [name, password] : policy.users) {
    database->addUserRecord(name.c_str(), password.c_str());
  }
  return database;
}

// Half of the process's descriptor limit; the rest is the host's.
std::size_t maxConnections() {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  return static_cast<std::size_t>(std::min<rlim_t>(limit.rlim_cur / 2, 4096));
}

}  // namespace

RtspServer* RtspServer::createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds,
                                  std::shared_ptr<Policy const> policy) {
  auto sockets = listenOnPort(port, policy->delivery.address);
  if (!sockets) {
    return nullptr;
  }
  auto users = databaseOf(*policy);
  return new RtspServer(env, std::move(*sockets), port, reclamationSeconds, std::move(policy), std::move(users));
}

// live555 gets no sockets to listen on: it would accept one connection a pass,
// and spin when the process is out of descriptors.
RtspServer::RtspServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port, unsigned reclamationSeconds,
                       std::shared_ptr<Policy const> policy, std::unique_ptr<UserAuthenticationDatabase> users)
    : RTSPServer(env, -1, -1, Port(port), users.get(), reclamationSeconds),
      m_Policy(std::move(policy)),
      m_Users(std::move(users)),
      m_Listening(std::move(sockets)),
      m_WatchIpv4(env.taskScheduler(), m_Listening.ipv4.get(),
                  [this](int) KAVO_REQUIRES(eventLoopRole) { acceptAll(m_Listening.ipv4.get()); }),
      m_WatchIpv6(env.taskScheduler(), m_Listening.ipv6.get(),
                  [this](int) KAVO_REQUIRES(eventLoopRole) { acceptAll(m_Listening.ipv6.get()); }),
      m_MaxConnections(std::min(maxConnections(), m_Policy->maxConnections.value_or(SIZE_MAX))),
      m_AcceptAgain(env.taskScheduler(), [this]() KAVO_REQUIRES(eventLoopRole) { startAccepting(); }),
      m_CloseIdle(env.taskScheduler(), [this]() KAVO_REQUIRES(eventLoopRole) { closeIdleAndStalled(); }) {
  startAccepting();
  m_CloseIdle.start(idleCheckInterval);
}

// Sessions first, while this is still a server of ours.
RtspServer::~RtspServer() {
  eventLoopRole.assertHeld();
  while (auto* const session = static_cast<impl::ClientSession*>(fClientSessions->getFirst())) {
    session->sayGoodbye();
    delete session;
  }
  while (!m_Connections.empty()) {
    delete m_Connections.front();
  }
}

bool RtspServer::hasSession(char const* streamName) { return getServerMediaSession(streamName) != nullptr; }

template <class Function>
void RtspServer::forEachSession(Function const& function) {
  std::unique_ptr<HashTable::Iterator> const entries(HashTable::Iterator::create(*fClientSessions));
  char const* id = nullptr;
  while (auto* const session = static_cast<impl::ClientSession*>(entries->next(id))) {
    function(*session);
  }
}

void RtspServer::removeSession(ServerMediaSession* session) {
  std::vector<RtspConnection*> connections;
  forEachSession([&](impl::ClientSession& client) {
    eventLoopRole.assertHeld();
    if (client.isOf(session)) {
      client.sayGoodbye();
      connections.push_back(client.connection());
    }
  });
  deleteServerMediaSession(session);
  std::sort(connections.begin(), connections.end());
  connections.erase(std::unique(connections.begin(), connections.end()), connections.end());
  for (RtspConnection* const connection : connections) {
    if (connection != nullptr && !connection->hasStream()) {
      delete connection;
    }
  }
}

void RtspServer::addConnection(UniqueFd client, sockaddr_storage const& clientAddress) {
  auto const place = m_Connections.insert(m_Connections.end(), nullptr);
  try {
    *place = new RtspConnection(*this, std::move(client), clientAddress);
  } catch (...) {
    m_Connections.erase(place);
    throw;
  }
  (*place)->setPlace(place);
  noteCounts();
}

GenericMediaServer::ClientSession* RtspServer::createNewClientSession(u_int32_t sessionId) {
  eventLoopRole.assertHeld();
  m_NewSession = sessionId;
  return new impl::ClientSession(*this, sessionId);
}

void RtspServer::removeFailedSession() {
  auto const* const session = static_cast<impl::ClientSession*>(lookupClientSession(std::exchange(m_NewSession, 0)));
  if (session != nullptr && !session->hasStream()) {
    delete session;
  }
}

impl::ClientSession* RtspServer::sessionOf(std::string const& sessionId, sockaddr_storage const& clientAddress) {
  auto* const session = static_cast<impl::ClientSession*>(lookupClientSession(sessionId.c_str()));
  return session != nullptr && session->isOfHost(clientAddress) ? session : nullptr;
}

bool RtspServer::makeRoomForSession(sockaddr_storage const& clientAddress) {
  if (auto const most = m_Policy->maxViewersPerAddress) {
    std::size_t ofHost = 0;
    forEachSession([&](impl::ClientSession& session)
                       KAVO_REQUIRES(eventLoopRole) { ofHost += session.isOfHost(clientAddress) ? 1 : 0; });
    if (ofHost >= *most) {
      return false;
    }
  }
  if (numClientSessions() < std::min(m_MaxConnections, m_Policy->maxViewers.value_or(SIZE_MAX))) {
    return true;
  }
  impl::ClientSession* lost = nullptr;
  forEachSession([&](impl::ClientSession& session)
                     KAVO_REQUIRES(eventLoopRole) { lost = session.connection() == nullptr ? &session : lost; });
  delete lost;
  return lost != nullptr;
}

void RtspServer::removeConnection(Connections::iterator place) {
  m_Connections.erase(place);
  noteCounts();
}

void RtspServer::noteCounts() {
  using Process = kv_status_process;
  status::putNowAndMost(&Process::connections, &Process::connections_most, m_Connections.size());
  status::putNowAndMost(&Process::sessions, &Process::sessions_most, numClientSessions());
}

void RtspServer::noteActivity(Connections::iterator place) {
  m_Connections.splice(m_Connections.end(), m_Connections, place);
}

void RtspServer::startAccepting() {
  m_WatchIpv4.start(SOCKET_READABLE);
  m_WatchIpv6.start(SOCKET_READABLE);
}

void RtspServer::pauseAccepting() {
  m_WatchIpv4.stop();
  m_WatchIpv6.stop();
}

void RtspServer::acceptAll(int listeningSocket) {
  for (int i = 0; i < acceptsInARow && acceptOne(listeningSocket); ++i) {
  }
}

// False when the backlog is empty, or descriptors ran out.
bool RtspServer::acceptOne(int listeningSocket) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  UniqueFd client(accept4(listeningSocket, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.get() >= 0) {
    if (!m_Policy->allows(address)) {
      observeRefusal(Refusal::Address, address, "not allowed from there");
    } else if (MemoryReserve::refill() && (m_Connections.size() < m_MaxConnections || evictConnection())) {
      addConnection(std::move(client), address);
    } else {
      observeRefusal(Refusal::Limit, address, "too many connections");
    }
    return true;
  }
  if (errno == EINTR || errno == ECONNABORTED) {
    return true;
  }
  bool const full = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
  if (full && !evictConnection()) {
    // Pending connections stay in the backlog; until there is room the loop would only spin.
    pauseAccepting();
    m_AcceptAgain.start(acceptRetryDelay);
    return false;
  }
  return full;
}

// Closes the least recently active connection that never sent anything, or else
// the least recently active one without a stream. In that order, so that a flood of
// silent connections cannot evict a client about to set up a session. False when
// there is none to close.
bool RtspServer::evictConnection() {
  auto const close = [](auto const& range, auto const& unwanted) {
    auto const found = std::find_if(range.begin(), range.end(), unwanted);
    if (found != range.end()) {
      delete *found;
      return true;
    }
    return false;
  };
  return close(m_Connections, [](RtspConnection const* connection)
                                  KAVO_REQUIRES(eventLoopRole) { return !connection->hasSentAnything(); }) ||
         close(m_Connections,
               [](RtspConnection const* connection) KAVO_REQUIRES(eventLoopRole) { return !connection->hasStream(); });
}

void RtspServer::closeIdleAndStalled() {
  m_CloseIdle.start(idleCheckInterval);
  MemoryReserve::refill();
  noteCounts();
  if (status::page() != nullptr) {
    status::putProcess(&kv_status_process::alive, status::now());
  }
  auto const now = RtspConnection::Clock::now();
  for (auto place = m_Connections.begin(); place != m_Connections.end();) {
    RtspConnection* const connection = *place++;
    bool const idle = now - connection->lastActivity() > idleTimeout && !connection->hasStream();
    if (idle || connection->isStalled(now)) {
      for (impl::ClientSession* const session : connection->sessions()) {
        session->setDeparture(Departure::Stalled);
      }
      delete connection;
    } else {
      for (impl::ClientSession* const session : connection->sessions()) {
        session->noteProgress();
      }
    }
  }
  std::vector<impl::ClientSession*> abandoned;
  forEachSession([&](impl::ClientSession& session) {
    eventLoopRole.assertHeld();
    if (session.probe()) {
      session.setDeparture(Departure::Unreachable);
      abandoned.push_back(&session);
    }
  });
  for (impl::ClientSession* const session : abandoned) {
    delete session;
  }
}

}  // namespace kavo::impl
