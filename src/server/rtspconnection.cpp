#include "server/rtspconnection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "eventloop/contained.h"
#include "eventloop/memoryreserve.h"
#include "operate/observer.h"
#include "server/clientsession.h"
#include "server/rtspserver.h"

namespace kavo::impl {

namespace {

// HTTP tunnels, REGISTER, ANNOUNCE and RECORD are not among them.
constexpr std::string_view answeredMethods[] = {"OPTIONS", "DESCRIBE", "SETUP",         "PLAY",
                                                "PAUSE",   "TEARDOWN", "GET_PARAMETER", "SET_PARAMETER"};

// Read at most this much before other sockets take their turn.
constexpr std::size_t readSize = 16 * std::size_t{1024};

// How much a client may pipeline while its requests wait for a frame to be sent:
// more than the largest single item.
constexpr std::size_t maxPendingInput = 128 * std::size_t{1024};

}  // namespace

RtspConnection::RtspConnection(RtspServer& server, UniqueFd clientSocket, sockaddr_storage const& clientAddress)
    : RTSPClientConnection(server, clientSocket.release(), clientAddress),
      m_Server(server),
      m_Watch(envir().taskScheduler(), fOurSocket,
              [this](int conditions) KAVO_REQUIRES(eventLoopRole) {
                auto const alive = m_Alive;
                if (!contained([&]() KAVO_REQUIRES(eventLoopRole) { handleSocket(conditions); }) && *alive) {
                  fCurrentCSeq = nullptr;  // live555 frees it before it has memory for the next
                  delete this;
                }
              }),
      m_Writer(std::make_shared<InterleavedWriter>(
          envir().taskScheduler(), fOurSocket, [this](bool wanted) KAVO_REQUIRES(eventLoopRole) {
            m_Watch.start(wanted ? SOCKET_READABLE | SOCKET_WRITABLE : SOCKET_READABLE);
          })) {
  // In place of live555's handler, which would also ask for urgent data and never read it.
  m_Watch.start(SOCKET_READABLE);
}

RtspConnection::~RtspConnection() {
  eventLoopRole.assertHeld();
  m_Writer->close();
  for (ClientSession* const session : m_Sessions) {
    session->leaveConnection();
  }
  m_Server.removeConnection(m_Place);
  *m_Alive = false;
}

bool RtspConnection::hasStream() const {
  return std::any_of(m_Sessions.begin(), m_Sessions.end(),
                     [](auto const* session) KAVO_REQUIRES(eventLoopRole) { return session->hasStream(); });
}

bool RtspConnection::hasAccepted() const {
  return std::strncmp(reinterpret_cast<char const*>(fResponseBuffer), "RTSP/1.0 200", 12) == 0;
}

std::optional<RequestedTransport> RtspConnection::transportFor(std::optional<RequestedTransport> transport) const {
  auto const isFree = [this](int channel) KAVO_REQUIRES(eventLoopRole) {
    return std::none_of(m_Sessions.begin(), m_Sessions.end(), [=](auto const* session) KAVO_REQUIRES(eventLoopRole) {
      return session->usesChannel(channel);
    });
  };
  if (!transport || !transport->interleaved) {
    return transport;
  }
  while (!transport->chosen && !(isFree(transport->rtp) && isFree(transport->rtcp))) {
    transport->rtp = static_cast<std::uint16_t>(transport->rtp + 2);
    transport->rtcp = static_cast<std::uint16_t>(transport->rtp + 1);
  }
  return isFree(transport->rtp) && isFree(transport->rtcp) ? transport : std::nullopt;
}

void RtspConnection::handleSocket(int conditions) {
  bool here = true;
  if ((conditions & SOCKET_WRITABLE) != 0) {
    m_Writer->flush();
    here = handleAll();  // what was held back
  }
  if (here && (conditions & SOCKET_READABLE) != 0) {
    receive();
  }
}

void RtspConnection::receive() {
  std::array<char, readSize> bytes;
  ssize_t const size = recv(fOurSocket, bytes.data(), bytes.size(), MSG_DONTWAIT);
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
    return;
  }
  if (size <= 0) {
    delete this;
    return;
  }
  m_HasSentAnything = true;
  m_LastActivity = Clock::now();
  m_Server.noteActivity(m_Place);
  m_Reader.add({bytes.data(), static_cast<std::size_t>(size)});
  if (handleAll() && m_Reader.size() > maxPendingInput) {
    delete this;  // it floods without reading
  }
}

// False when the connection is gone.
bool RtspConnection::handleAll() {
  Next next = Next::Item;
  while (next == Next::Item) {
    next = handleNext();
  }
  return next != Next::Gone;
}

RtspConnection::Next RtspConnection::handleNext() {
  if (m_Reader.hasRequest() && !m_Writer->prepareForResponse()) {
    return Next::Wait;
  }
  switch (m_Reader.next()) {
    case RequestReader::Item::Interleaved:
      handleInterleaved();
      return Next::Item;
    case RequestReader::Item::Request: {
      auto const alive = m_Alive;
      handleRequest();
      return *alive ? Next::Item : Next::Gone;
    }
    case RequestReader::Item::Malformed:
      answer("400 Bad Request");
      delete this;
      return Next::Gone;
    case RequestReader::Item::Incomplete:
      break;
  }
  return Next::Wait;
}

void RtspConnection::handleInterleaved() {
  auto const session = std::find_if(
      m_Sessions.begin(), m_Sessions.end(),
      [this](auto const* entry) KAVO_REQUIRES(eventLoopRole) { return entry->usesChannel(m_Reader.channel()); });
  if (session != m_Sessions.end()) {
    (*session)->handleReport(m_Reader.packet());
  }
}

void RtspConnection::handleRequest() {
  if (std::find(std::begin(answeredMethods), std::end(answeredMethods), request().method) ==
      std::end(answeredMethods)) {
    answer("405 Method Not Allowed");
  } else if (request().cseq.empty()) {
    answer("400 Bad Request");
  } else if (!request().session.empty() && m_Server.sessionOf(request().session, fClientAddr) == nullptr) {
    answer("454 Session Not Found");
  } else if ((request().method == "SETUP" || request().method == "DESCRIBE") && !MemoryReserve::refill()) {
    observeRefusal(Refusal::Limit, fClientAddr, "out of memory");
    answer("503 Service Unavailable");
  } else if (request().method == "SETUP" && request().session.empty() &&
             (m_Sessions.size() >= maxSessions || !m_Server.makeRoomForSession(fClientAddr))) {
    observeRefusal(Refusal::Limit, fClientAddr, "too many sessions");
    answer("453 Not Enough Bandwidth");
  } else {
    auto const text = request().text();
    resetRequestBuffer();
    std::memcpy(fRequestBuffer, text.data(), text.size());
    auto& server = m_Server;
    auto const session = request().method == "PLAY" ? request().session : "";
    auto const address = fClientAddr;
    handleRequestBytes(static_cast<int>(text.size()));
    server.removeFailedSession();
    server.noteCounts();
    if (auto* const playing = server.sessionOf(session, address)) {
      playing->begin();
    }
  }
}

// live555 asks this for DESCRIBE and SETUP, and sends the response that it makes where
// the answer is no. It gets the one header that it looks for.
Boolean RtspConnection::authenticationOK(char const* method, char const* urlSuffix, char const* /*fullRequest*/) {
  eventLoopRole.assertHeld();
  if (m_Server.m_Users == nullptr) {
    return True;
  }
  std::string const header = "Authorization: " + request().authorization + "\r\n\r\n";
  if (RTSPClientConnection::authenticationOK(method, urlSuffix, header.c_str())) {
    return True;
  }
  // Without credentials it is the usual way to learn that they are wanted.
  if (!request().authorization.empty() || !request().session.empty()) {
    observeRefusal(Refusal::User, fClientAddr, "no valid user and password");
  }
  return False;
}

// Receivers count the packets between the number that RTP-Info gives and their first one as lost.
void RtspConnection::withdrawSequence() {
  auto* const text = reinterpret_cast<char*>(fResponseBuffer);
  std::string_view const response = text;
  auto const sequence = response.rfind(";seq=");  // the last: a stream may be called so
  if (sequence != std::string_view::npos) {
    auto const rest = response.substr(response.find_first_of(";\r", sequence + 1));
    std::memmove(text + sequence, rest.data(), rest.size() + 1);
  }
}

// Our own response to a request that live555 never sees.
void RtspConnection::answer(std::string_view status) {
  std::string response = "RTSP/1.0 " + std::string(status) + "\r\n";
  if (!request().cseq.empty()) {
    response += "CSeq: " + request().cseq + "\r\n";
  }
  if (status.starts_with("405")) {
    response += "Allow: OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER\r\n";
  }
  response += "\r\n";
  send(fClientOutputSocket, response.data(), response.size(), MSG_NOSIGNAL);
}

}  // namespace kavo::impl
