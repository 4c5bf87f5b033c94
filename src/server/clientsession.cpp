#include "server/clientsession.h"

#include <string>
#include <string_view>

#include "server/rtspconnection.h"
#include "server/rtspserver.h"
#include "server/transport.h"

namespace kavo::impl {

ClientSession::ClientSession(RtspServer& server, u_int32_t sessionId) : RTSPClientSession(server, sessionId) {}

ClientSession::~ClientSession() {
  eventLoopRole.assertHeld();
  if (m_Connection != nullptr) {
    m_Connection->removeSession(*this);
  }
}

Viewer* ClientSession::viewer() const {
  for (unsigned i = 0; i < fNumStreamStates; ++i) {
    if (fStreamStates[i].subsession != nullptr && fStreamStates[i].streamToken != nullptr) {
      return static_cast<Viewer*>(fStreamStates[i].streamToken);
    }
  }
  return nullptr;
}

InterleavedTransport* ClientSession::interleaved() const {
  return viewer() != nullptr ? viewer()->transport().interleaved() : nullptr;
}

void ClientSession::joinConnection(RtspConnection& connection) {
  if (m_Connection == nullptr) {
    m_Connection = &connection;
    connection.addSession(*this);
  }
}

void ClientSession::leaveConnection() {
  m_Connection = nullptr;
  if (interleaved() != nullptr) {
    setDeparture(Departure::ConnectionClosed);
  }
}

void ClientSession::setDeparture(Departure departure) {
  if (viewer() != nullptr) {
    viewer()->setDeparture(departure);
  }
}

void ClientSession::handleReport(std::span<std::uint8_t const> packet) {
  viewer()->viewers().reporter().handle(*viewer(), packet);
}

void ClientSession::noteProgress() {
  if (interleaved() != nullptr && interleaved()->takeProgress()) {
    noteLiveness();
  }
}

bool ClientSession::isUnused() const {
  constexpr auto longest = std::chrono::seconds(10);
  return viewer() != nullptr && viewer()->state() == ViewerState::SetUp && Viewer::Clock::now() - m_Begin > longest;
}

bool ClientSession::probe() {
  Viewer* const watching = viewer();
  if (m_Connection != nullptr || watching == nullptr) {
    return false;
  }
  watching->viewers().reporter().probe(*watching);
  return watching->probesRefused() >= 2;
}

void ClientSession::begin() {
  if (Viewer* const watching = viewer()) {
    watching->viewers().begin(*watching);
  }
}

void ClientSession::sendBye() {
  if (Viewer* const watching = viewer()) {
    setDeparture(Departure::SessionRemoved);
    watching->viewers().reporter().sendBye(*watching);
  }
}

// live555 answers every SETUP for an existing track with 200, so this refuses what must not
// be served, before or after live555 has handled the request.
void ClientSession::handleCmd_SETUP(RTSPServer::RTSPClientConnection* connection, char const* urlPreSuffix,
                                    char const* urlSuffix, char const* /*fullRequestStr*/) {
  eventLoopRole.assertHeld();
  auto& ours = static_cast<RtspConnection&>(*connection);
  if (hasStream()) {
    ours.refuse("455 Method Not Valid in This State");
    return;
  }
  auto const transport = ours.transportFor(acceptableTransport(ours.request().transport));
  if (!transport) {
    ours.refuse("461 Unsupported Transport");
    return;
  }
  std::string const headers = "SETUP\r\nTransport: " + transport->text() + "\r\n\r\n";
  try {
    RTSPClientSession::handleCmd_SETUP(connection, urlPreSuffix, urlSuffix, headers.c_str());
  } catch (...) {
    // live555 has freed these, but had no memory for the new ones.
    fURLPreSuffix = fURLSuffix = fFullRequestStr = fTrackId = nullptr;
    throw;
  }
  if (Viewer* const watching = viewer()) {
    if (interleaved() != nullptr) {
      interleaved()->attach(ours.writer());
      watching->observer().setAddress(ours.clientAddress());
    }
    m_ClientAddress = ours.clientAddress();
    m_User = ours.user();
    watching->observer().setUser(m_User);
    // Source addresses can be forged: without a connection, only a viewer that echoes our reports is alive.
    watching->onReport([this](bool echoes) KAVO_REQUIRES(eventLoopRole) {
      if (m_Connection != nullptr || echoes) {
        noteLiveness();
      }
    });
    joinConnection(ours);
  } else if (ours.hasAccepted()) {
    ours.refuse("503 Service Unavailable");  // there is no socket to send from
  }
}

void ClientSession::handleCmd_withinSession(RTSPServer::RTSPClientConnection* connection, char const* cmdName,
                                            char const* urlPreSuffix, char const* urlSuffix,
                                            char const* /*fullRequestStr*/) {
  eventLoopRole.assertHeld();
  auto& ours = static_cast<RtspConnection&>(*connection);
  if (!ours.isAuthorized(cmdName)) {
    return;
  }
  if (ours.user() != m_User) {
    ours.refuse("454 Session Not Found");
    return;
  }
  joinConnection(ours);
  if (cmdName == std::string_view("TEARDOWN")) {
    setDeparture(Departure::Teardown);
  }
  RTSPClientSession::handleCmd_withinSession(connection, cmdName, urlPreSuffix, urlSuffix,
                                             ours.request().headers().c_str());
  if (cmdName == std::string_view("PLAY") && viewer() != nullptr && !viewer()->isSequenceKnown()) {
    ours.withdrawSequence();
  }
}

}  // namespace kavo::impl
