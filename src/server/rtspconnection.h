// One client's RTSP connection. It parses its input itself and passes on to live555 only
// requests rebuilt from the parsed values. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <chrono>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/uniquefd.h"
#include "delivery/interleavedwriter.h"
#include "eventloop/eventlooprole.h"
#include "eventloop/loophandles.h"
#include "operate/descriptors.h"
#include "server/requestreader.h"
#include "server/transport.h"

namespace kavo::impl {

class ClientSession;
class RtspServer;

class RtspConnection : public RTSPServer::RTSPClientConnection {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::size_t maxSessions = 4;

  RtspConnection(RtspServer& server, UniqueFd clientSocket, DescriptorBudget::Share share,
                 sockaddr_storage const& clientAddress) KAVO_REQUIRES(eventLoopRole);
  ~RtspConnection() override;

  // Whether the client has sent anything yet.
  bool hasSentAnything() const KAVO_REQUIRES(eventLoopRole) { return m_HasSentAnything; }
  Clock::time_point lastActivity() const KAVO_REQUIRES(eventLoopRole) { return m_LastActivity; }
  // A request may need descriptors, for which another connection is evicted.
  bool isHandlingRequest() const KAVO_REQUIRES(eventLoopRole) { return m_IsHandlingRequest; }
  // Its position in the server's list.
  void setPlace(std::list<RtspConnection*>::iterator place) KAVO_REQUIRES(eventLoopRole) { m_Place = place; }
  // Whether one of its sessions has a stream; the idle timeout does not apply then.
  bool hasStream() const KAVO_REQUIRES(eventLoopRole);
  bool isStalled(Clock::time_point now) const KAVO_REQUIRES(eventLoopRole) { return m_Writer->isStalled(now); }

  void addSession(ClientSession& session) KAVO_REQUIRES(eventLoopRole) { m_Sessions.push_back(&session); }
  void removeSession(ClientSession const& session) KAVO_REQUIRES(eventLoopRole) { std::erase(m_Sessions, &session); }
  std::vector<ClientSession*> const& sessions() const KAVO_REQUIRES(eventLoopRole) { return m_Sessions; }

  sockaddr_storage const& clientAddress() const { return fClientAddr; }
  // The user of the request being answered; empty if there are no users.
  std::string user() const KAVO_REQUIRES(eventLoopRole);
  // The request being answered.
  Request const& request() const KAVO_REQUIRES(eventLoopRole) { return m_Reader.request(); }
  std::shared_ptr<InterleavedWriter> const& writer() const KAVO_REQUIRES(eventLoopRole) { return m_Writer; }
  // The transport with channels that no other session of the connection uses; nullopt if the
  // client has chosen channels in use.
  std::optional<RequestedTransport> transportFor(std::optional<RequestedTransport> transport) const
      KAVO_REQUIRES(eventLoopRole);
  // Sets the response.
  void refuse(char const* status) { setRTSPResponse(status); }
  // Removes the sequence number of the first packet from the response.
  void withdrawSequence();
  // Whether the response so far is 200.
  bool hasAccepted() const;
  // Whether the request has the credentials that the policy requires; if not, sets the response.
  bool isAuthorized(char const* method) { return authenticationOK(method, "", ""); }

 protected:
  Boolean authenticationOK(char const* method, char const* urlSuffix, char const* fullRequest) override;
  void handleCmd_bad() override { refuse("400 Bad Request"); }
  void handleCmd_GET_PARAMETER(char const* /*fullRequest*/) override { refuse("200 OK"); }
  // Defence in depth: no HTTP request reaches live555.
  void handleHTTPCmd_OPTIONS() override { handleHTTPCmd_notSupported(); }
  void handleHTTPCmd_TunnelingGET(char const*) override { handleHTTPCmd_notSupported(); }
  Boolean handleHTTPCmd_TunnelingPOST(char const*, unsigned char const*, unsigned) override {
    handleHTTPCmd_notSupported();
    return False;
  }

 private:
  // What to do after an item.
  enum class Next { Item, Wait, Gone };

  template <class Function>
  void guarded(Function const& function) KAVO_REQUIRES(eventLoopRole);
  void handleSocket(int conditions) KAVO_REQUIRES(eventLoopRole);
  void watch() KAVO_REQUIRES(eventLoopRole);
  void receive() KAVO_REQUIRES(eventLoopRole);
  bool handleAll() KAVO_REQUIRES(eventLoopRole);
  Next handleNext() KAVO_REQUIRES(eventLoopRole);
  void handleInterleaved() KAVO_REQUIRES(eventLoopRole);
  void handleRequest() KAVO_REQUIRES(eventLoopRole);
  // The error status for the request; empty if live555 is to answer it.
  std::string_view refusalOf(Request const& request) KAVO_REQUIRES(eventLoopRole);
  bool hasValidCredentials(char const* method, char const* urlSuffix) KAVO_REQUIRES(eventLoopRole);
  void answer(std::string_view status) KAVO_REQUIRES(eventLoopRole);

  RtspServer& m_Server;
  DescriptorBudget::Share const m_Descriptor;
  std::list<RtspConnection*>::iterator m_Place KAVO_GUARDED_BY(eventLoopRole);
  Clock::time_point m_LastActivity KAVO_GUARDED_BY(eventLoopRole) = Clock::now();
  bool m_HasSentAnything KAVO_GUARDED_BY(eventLoopRole) = false;
  std::vector<ClientSession*> m_Sessions KAVO_GUARDED_BY(eventLoopRole);
  RequestReader m_Reader KAVO_GUARDED_BY(eventLoopRole);
  SocketWatch m_Watch KAVO_GUARDED_BY(eventLoopRole);
  bool m_WantsToWrite KAVO_GUARDED_BY(eventLoopRole) = false;
  Timer m_NextTurn KAVO_GUARDED_BY(eventLoopRole);  // pending while items read wait for it
  bool m_IsHandlingRequest KAVO_GUARDED_BY(eventLoopRole) = false;
  int m_WrongPasswords KAVO_GUARDED_BY(eventLoopRole) = 0;
  std::shared_ptr<InterleavedWriter> m_Writer KAVO_GUARDED_BY(eventLoopRole);
  // live555 may delete this object inside its handlers; callers that use it afterwards keep a copy.
  std::shared_ptr<bool> m_Alive KAVO_GUARDED_BY(eventLoopRole) = std::make_shared<bool>(true);
};

}  // namespace kavo::impl
