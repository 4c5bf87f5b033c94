// The RTSP server, with its own listening sockets and its limits on connections and
// sessions. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>

#include "eventloop/eventlooprole.h"
#include "eventloop/loophandles.h"
#include "operate/descriptors.h"
#include "operate/policy.h"
#include "server/listeningsockets.h"
#include "server/passwordbrake.h"

namespace kavo::impl {

class ClientSession;
class RtspConnection;

class RtspServer : public RTSPServer {
 public:
  // Null if the port (host byte order) cannot be bound on every address family of the
  // machine. Inactive client sessions are closed after reclamationSeconds.
  static RtspServer* createNew(UsageEnvironment& env, std::uint16_t port, unsigned reclamationSeconds,
                               std::shared_ptr<Policy const> policy, std::shared_ptr<DescriptorBudget> descriptors = {},
                               std::string const& policyFile = "") KAVO_REQUIRES(eventLoopRole);

  // Whether a media session with exactly this name is registered.
  bool hasSession(char const* streamName) KAVO_REQUIRES(eventLoopRole);
  std::size_t connections() const KAVO_REQUIRES(eventLoopRole) { return m_Connections.size(); }
  std::size_t sessions() const KAVO_REQUIRES(eventLoopRole) { return numClientSessions(); }
  // Sends its viewers a BYE, closes the connections that have no other
  // stream, and deletes the media session.
  void removeSession(ServerMediaSession* session) KAVO_REQUIRES(eventLoopRole);

 protected:
  RtspServer(UsageEnvironment& env, ListeningSockets sockets, std::uint16_t port, unsigned reclamationSeconds,
             std::shared_ptr<Policy const> policy, std::unique_ptr<UserAuthenticationDatabase> users,
             std::shared_ptr<DescriptorBudget> descriptors, std::string const& policyFile) KAVO_REQUIRES(eventLoopRole);
  ~RtspServer() override;

  GenericMediaServer::ClientSession* createNewClientSession(u_int32_t sessionId) override;

 private:
  friend class RtspConnection;
  using Connections = std::list<RtspConnection*>;

  void addConnection(UniqueFd client, DescriptorBudget::Share share, sockaddr_storage const& clientAddress)
      KAVO_REQUIRES(eventLoopRole);
  // Called by the connections themselves.
  void removeConnection(Connections::iterator place) KAVO_REQUIRES(eventLoopRole);
  void noteActivity(Connections::iterator place) KAVO_REQUIRES(eventLoopRole);

  // The stream that a path names, without what players append (a slash, a query, the track).
  // Empty if there is no such stream.
  std::string streamOf(std::string const& path) KAVO_REQUIRES(eventLoopRole);
  // The path in the form that live555 finds.
  std::string pathOf(std::string const& path) KAVO_REQUIRES(eventLoopRole);

  // The session with the id; null unless it was set up from the client's address, because ids
  // can be guessed.
  impl::ClientSession* sessionOf(std::string const& sessionId, sockaddr_storage const& clientAddress)
      KAVO_REQUIRES(eventLoopRole);
  // False if no other client session may be created from the address. Evicts a session that does
  // not play, from the address with the most of them, or one without a connection.
  bool makeRoomForSession(sockaddr_storage const& clientAddress) KAVO_REQUIRES(eventLoopRole);
  // Deletes the session created for the last request unless a stream was set up.
  void removeFailedSession() KAVO_REQUIRES(eventLoopRole);
  void forEachSession(std::function<void(impl::ClientSession&)> const& function) KAVO_REQUIRES(eventLoopRole);

  void startAccepting() KAVO_REQUIRES(eventLoopRole);
  void pauseAccepting() KAVO_REQUIRES(eventLoopRole);
  void acceptAll(int listeningSocket) KAVO_REQUIRES(eventLoopRole);
  bool acceptOne(int listeningSocket, bool isPending) KAVO_REQUIRES(eventLoopRole);
  std::optional<DescriptorBudget::Share> placeForConnection(sockaddr_storage const& clientAddress)
      KAVO_REQUIRES(eventLoopRole);
  bool evictConnection() KAVO_REQUIRES(eventLoopRole);
  void endSessions(std::function<bool(impl::ClientSession&)> const& isToEnd) KAVO_REQUIRES(eventLoopRole);
  void sweep() KAVO_REQUIRES(eventLoopRole);
  void closeIdleAndStalled() KAVO_REQUIRES(eventLoopRole);
  void endUnusedSessions() KAVO_REQUIRES(eventLoopRole);
  void reloadPolicy() KAVO_REQUIRES(eventLoopRole);
  void endWhoMayNotWatch(Policy const& before) KAVO_REQUIRES(eventLoopRole);
  std::size_t maxConnections() const KAVO_REQUIRES(eventLoopRole);

  std::shared_ptr<Policy const> m_Policy KAVO_GUARDED_BY(eventLoopRole);
  PolicyFile m_PolicyFile KAVO_GUARDED_BY(eventLoopRole);
  std::unique_ptr<UserAuthenticationDatabase> m_Users KAVO_GUARDED_BY(eventLoopRole);  // null: no users
  PasswordBrake m_Brake KAVO_GUARDED_BY(eventLoopRole);
  std::shared_ptr<DescriptorBudget> const m_Descriptors;
  ListeningSockets const m_Listening;
  SocketWatch m_WatchIpv4 KAVO_GUARDED_BY(eventLoopRole);
  SocketWatch m_WatchIpv6 KAVO_GUARDED_BY(eventLoopRole);
  Connections m_Connections KAVO_GUARDED_BY(eventLoopRole);  // least recently active first
  u_int32_t m_NewSession KAVO_GUARDED_BY(eventLoopRole) = 0;
  Timer m_AcceptAgain KAVO_GUARDED_BY(eventLoopRole);
  Timer m_NextSweep KAVO_GUARDED_BY(eventLoopRole);
};

}  // namespace kavo::impl
