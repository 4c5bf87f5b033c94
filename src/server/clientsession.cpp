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

void ClientSession::sayGoodbye() {
  if (Viewer* const watching = viewer()) {
    setDeparture(Departure::SessionRemoved);
    watching->viewers().reporter().sayGoodbye(*watching);
  }
}

// live555 answers every SETUP for a track that exists with 200, so what must not
// be served is refused here, before or after it has looked.
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
    // live555 frees each before it has memory for the next.
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
    // Anybody can forge an address: without a connection only who echoes our reports is there.
    watching->onReport([this](bool echoes) KAVO_REQUIRES(eventLoopRole) {
      if (m_Connection != nullptr || echoes) {
        noteLiveness();
      }
    });
    joinConnection(ours);
  } else if (ours.hasAccepted()) {
    ours.refuse("503 Service Unavailable");  // no socket to send from
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
