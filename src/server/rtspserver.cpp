#include "server/rtspserver.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

#include "base/address.h"
#include "eventloop/memoryreserve.h"
#include "operate/journal.h"
#include "server/clientsession.h"
#include "server/rtspconnection.h"

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

// Idle timeout of connections without a stream.
constexpr auto idleTimeout = 30s;
constexpr auto sweepInterval = 1s;
// How long to stop accepting when the process is out of descriptors.
constexpr auto acceptRetryDelay = 100ms;
// Per pass of the loop, so that other sockets are served.
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

void complain(std::string const& text) { std::fprintf(stderr, "kavo_stream: %s\n", text.c_str()); }

}  // namespace

RtspServer* RtspServer::createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds,
                                  std::shared_ptr<Policy const> policy, std::shared_ptr<DescriptorBudget> descriptors,
                                  std::string const& policyFile) {
  auto sockets = listenOnPort(port, policy->delivery.address);
  if (!sockets) {
    int const error = errno;
    if (!policyFile.empty()) {
      complain("cannot listen on " + (policy->delivery.address.empty() ? "" : policy->delivery.address + ", ") +
               "port " + std::to_string(port) + ": " + std::strerror(error));
    }
    return nullptr;
  }
  auto users = databaseOf(*policy);
  return new RtspServer(env, std::move(*sockets), port, reclamationSeconds, std::move(policy), std::move(users),
                        descriptors ? std::move(descriptors) : std::make_shared<DescriptorBudget>(), policyFile);
}

// live555 gets no listening sockets: it would accept one connection a pass, and spin when
// the process is out of descriptors.
RtspServer::RtspServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port, unsigned reclamationSeconds,
                       std::shared_ptr<Policy const> policy, std::unique_ptr<UserAuthenticationDatabase> users,
                       std::shared_ptr<DescriptorBudget> descriptors, std::string const& policyFile)
    : RTSPServer(env, -1, -1, Port(port), users.get(), reclamationSeconds),
      m_Policy(std::move(policy)),
      m_PolicyFile(policyFile),
      m_Users(std::move(users)),
      m_Descriptors(std::move(descriptors)),
      m_Listening(std::move(sockets)),
      m_WatchIpv4(env.taskScheduler(), m_Listening.ipv4.get(),
                  [this](int) KAVO_REQUIRES(eventLoopRole) { acceptAll(m_Listening.ipv4.get()); }),
      m_WatchIpv6(env.taskScheduler(), m_Listening.ipv6.get(),
                  [this](int) KAVO_REQUIRES(eventLoopRole) { acceptAll(m_Listening.ipv6.get()); }),
      m_AcceptAgain(env.taskScheduler(), [this]() KAVO_REQUIRES(eventLoopRole) { startAccepting(); }),
      m_NextSweep(env.taskScheduler(), [this]() KAVO_REQUIRES(eventLoopRole) { sweep(); }) {
  m_Descriptors->onShortage([this]() KAVO_REQUIRES(eventLoopRole) { return evictConnection(); });
  startAccepting();
  m_NextSweep.start(sweepInterval);
}

// Deletes the sessions first, while this is still an RtspServer.
RtspServer::~RtspServer() {
  eventLoopRole.assertHeld();
  while (auto* const session = static_cast<impl::ClientSession*>(fClientSessions->getFirst())) {
    session->sendBye();
    delete session;
  }
  while (!m_Connections.empty()) {
    delete m_Connections.front();
  }
  m_Descriptors->onShortage(nullptr);
}

std::string RtspServer::streamOf(std::string const& path) {
  auto const withoutTrack = [](std::string name) {
    auto const last = name.rfind('/');
    name.resize(last != std::string::npos && name.compare(last, 6, "/track") == 0 ? last : name.size());
    name.resize(name.ends_with('/') ? name.size() - 1 : name.size());
    return name;
  };
  for (auto const& name : {path, withoutTrack(path), withoutTrack(path.substr(0, path.find('?')))}) {
    if (hasSession(name.c_str())) {
      return name;
    }
  }
  return "";
}

std::string RtspServer::pathOf(std::string const& path) {
  std::string const name = streamOf(path);
  auto const track = path.rfind("/track");
  return name.empty() ? path : name + (track == std::string::npos || track < name.size() ? "" : path.substr(track));
}

bool RtspServer::hasSession(char const* streamName) { return getServerMediaSession(streamName) != nullptr; }

void RtspServer::forEachSession(std::function<void(impl::ClientSession&)> const& function) {
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
      client.sendBye();
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

void RtspServer::addConnection(UniqueFd client, DescriptorBudget::Share share, sockaddr_storage const& clientAddress) {
  auto const place = m_Connections.insert(m_Connections.end(), nullptr);
  try {
    *place = new RtspConnection(*this, std::move(client), std::move(share), clientAddress);
  } catch (...) {
    m_Connections.erase(place);
    throw;
  }
  (*place)->setPlace(place);
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

void RtspServer::removeConnection(Connections::iterator place) { m_Connections.erase(place); }

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
  for (int i = 0; i < acceptsInARow && acceptOne(listeningSocket, i == 0); ++i) {
  }
}

// False if the backlog is empty, or there are no descriptors: accept4() finds that out even if nothing
// is pending, which is certain only for the first call in a pass.
bool RtspServer::acceptOne(int listeningSocket, bool isPending) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  UniqueFd client(accept4(listeningSocket, reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.get() >= 0) {
    if (!m_Policy->allows(address)) {
      g_Journal->refused(Refusal::Address, address, "not allowed from there");
    } else if (auto share = placeForConnection(address)) {
      addConnection(std::move(client), std::move(*share), address);
    } else {
      g_Journal->refused(Refusal::Limit, address, "too many connections");
    }
    return true;
  }
  if (errno == EINTR || errno == ECONNABORTED) {
    return true;
  }
  bool const full = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
  if (!full || !isPending) {
    return false;
  }
  if (evictConnection()) {
    return true;
  }
  // Pending connections stay in the backlog: without this pause the loop would spin.
  pauseAccepting();
  m_AcceptAgain.start(acceptRetryDelay);
  return false;
}

void RtspServer::sweep() {
  m_NextSweep.start(sweepInterval);
  MemoryReserve::refill();
  closeIdleAndStalled();
  endUnusedSessions();
  if (m_PolicyFile.hasChanged()) {
    reloadPolicy();
  }
}

void RtspServer::closeIdleAndStalled() {
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
}

void RtspServer::endSessions(std::function<bool(impl::ClientSession&)> const& isToEnd) {
  std::vector<impl::ClientSession*> sessions;
  forEachSession([&](impl::ClientSession& session) KAVO_REQUIRES(eventLoopRole) {
    if (isToEnd(session)) {
      sessions.push_back(&session);
    }
  });
  for (impl::ClientSession* const session : sessions) {
    delete session;
  }
}

void RtspServer::endUnusedSessions() {
  endSessions([](impl::ClientSession& session) KAVO_REQUIRES(eventLoopRole) {
    bool const isGone = session.probe();
    if (isGone) {
      session.setDeparture(Departure::Unreachable);
    }
    return isGone || session.isUnused();
  });
}

// Applies who may watch, and how many. An invalid file changes nothing.
void RtspServer::reloadPolicy() {
  auto const before = m_Policy;
  try {
    auto policy = std::make_shared<Policy>(m_PolicyFile.read());
    if (policy->delivery != before->delivery || policy->parallelEncoding != before->parallelEncoding) {
      complain(m_PolicyFile.name() +
               ": read again; server.address, [delivery] and [encoding] wait for the next KV_INIT");
      policy->delivery = before->delivery;
      policy->parallelEncoding = before->parallelEncoding;
    }
    auto users = databaseOf(*policy);
    setAuthenticationDatabase(users.get());
    m_Users = std::move(users);
    m_Policy = std::move(policy);
  } catch (PolicyError const& error) {
    complain(std::string(error.what()) + "; the policy stays as it was");
    g_Journal->failed(error.what());
    return;
  }
  endWhoMayNotWatch(*before);
}

void RtspServer::endWhoMayNotWatch(Policy const& before) {
  auto const isSameUser = [&](std::string const& name) KAVO_REQUIRES(eventLoopRole) {
    auto const now = m_Policy->users.find(name);
    auto const then = before.users.find(name);
    return m_Policy->users.empty() || (now != m_Policy->users.end() && then != before.users.end() && *now == *then);
  };
  endSessions([&](impl::ClientSession& session) KAVO_REQUIRES(eventLoopRole) {
    bool const mayWatch = m_Policy->allows(session.clientAddress()) && isSameUser(session.user());
    if (!mayWatch) {
      session.setDeparture(Departure::NotAllowed);
    }
    return !mayWatch;
  });
  for (auto place = m_Connections.begin(); place != m_Connections.end();) {
    RtspConnection* const connection = *place++;
    if (!m_Policy->allows(connection->clientAddress())) {
      delete connection;
    }
  }
}

}  // namespace kavo::impl
