// One client's RTSP session. Event-loop thread.
#pragma once

#include <RTSPServer.hh>
#include <cstdint>
#include <span>
#include <string>

#include "base/address.h"
#include "delivery/interleavedtransport.h"
#include "delivery/viewers.h"
#include "eventloop/eventlooprole.h"

namespace kavo::impl {

class RtspConnection;
class RtspServer;
struct RequestedTransport;

class ClientSession : public RTSPServer::RTSPClientSession {
 public:
  ClientSession(RtspServer& server, u_int32_t sessionId);
  ~ClientSession() override;

  u_int32_t id() const { return fOurSessionId; }
  bool isOf(ServerMediaSession const* session) const { return fOurServerMediaSession == session; }
  // The connection that set it up or last used it; null once that has closed.
  RtspConnection* connection() const KAVO_REQUIRES(eventLoopRole) { return m_Connection; }
  void leaveConnection() KAVO_REQUIRES(eventLoopRole);
  // Why its viewer is leaving; only the first reason set counts.
  void setDeparture(Departure departure) KAVO_REQUIRES(eventLoopRole);

  // Whether it has been set up for some time without playing, so its slot can be reused.
  bool isUnused() const KAVO_REQUIRES(eventLoopRole);
  bool isPlaying() const KAVO_REQUIRES(eventLoopRole) { return viewer() != nullptr && viewer()->isActive(); }
  sockaddr_storage const& clientAddress() const KAVO_REQUIRES(eventLoopRole) { return m_ClientAddress; }
  // The user who set it up; empty if there are no users.
  std::string const& user() const KAVO_REQUIRES(eventLoopRole) { return m_User; }

  // Whether requests from the address may use it: only those from the address that set it up.
  bool isOfHost(sockaddr_storage const& address) const KAVO_REQUIRES(eventLoopRole) {
    return isSameHost(m_ClientAddress, address);
  }
  // Call once a second. True if its connection has closed and nothing listens on its viewer's
  // port any more.
  bool probe() KAVO_REQUIRES(eventLoopRole);

  // Whether a stream is set up: only then is the session worth keeping.
  bool hasStream() const KAVO_REQUIRES(eventLoopRole) { return viewer() != nullptr; }
  bool usesChannel(int channel) const KAVO_REQUIRES(eventLoopRole) {
    return interleaved() != nullptr && interleaved()->usesChannel(channel);
  }

  // Call after the response to PLAY: sends what it announced.
  void begin() KAVO_REQUIRES(eventLoopRole);

  // Handles a receiver report from one of its channels.
  void handleReport(std::span<std::uint8_t const> packet) KAVO_REQUIRES(eventLoopRole);
  // A viewer that receives frames over TCP is alive even if it sends nothing.
  void noteProgress() KAVO_REQUIRES(eventLoopRole);
  // Sends the viewer a BYE: its stream has ended.
  void sendBye() KAVO_REQUIRES(eventLoopRole);

 protected:
  void handleCmd_SETUP(RTSPServer::RTSPClientConnection* connection, char const* urlPreSuffix, char const* urlSuffix,
                       char const* fullRequestStr) override;
  void handleCmd_withinSession(RTSPServer::RTSPClientConnection* connection, char const* cmdName,
                               char const* urlPreSuffix, char const* urlSuffix, char const* fullRequestStr) override;
  // live555's response has a body, which clients do not expect.
  void handleCmd_GET_PARAMETER(RTSPServer::RTSPClientConnection* connection, ServerMediaSubsession* /*subsession*/,
                               char const* /*fullRequestStr*/) override {
    setRTSPResponse(connection, "200 OK", fOurSessionId);
  }

 private:
  // A stream has one track, so a session has one viewer.
  Viewer* viewer() const KAVO_REQUIRES(eventLoopRole);
  InterleavedTransport* interleaved() const KAVO_REQUIRES(eventLoopRole);
  void joinConnection(RtspConnection& connection) KAVO_REQUIRES(eventLoopRole);

  RtspConnection* m_Connection KAVO_GUARDED_BY(eventLoopRole) = nullptr;
  sockaddr_storage m_ClientAddress KAVO_GUARDED_BY(eventLoopRole){};
  std::string m_User KAVO_GUARDED_BY(eventLoopRole);
  Viewer::Clock::time_point const m_Begin = Viewer::Clock::now();
};

}  // namespace kavo::impl
