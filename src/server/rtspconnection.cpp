#include "server/rtspconnection.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>

#include "eventloop/contained.h"
#include "eventloop/memoryreserve.h"
#include "operate/journal.h"
#include "server/clientsession.h"
#include "server/rtspserver.h"

namespace kavo::impl {

namespace {

// Not HTTP tunnels, REGISTER, ANNOUNCE or RECORD.
constexpr std::string_view answeredMethods[] = {"OPTIONS", "DESCRIBE", "SETUP",         "PLAY",
                                                "PAUSE",   "TEARDOWN", "GET_PARAMETER", "SET_PARAMETER"};

// Bytes read before other sockets are served.
constexpr std::size_t readSize = 16 * std::size_t{1024};

// Requests and interleaved packets handled before other connections are served.
constexpr int itemsInATurn = 8;

// A connection is closed after this many.
constexpr int mostWrongPasswords = 8;

// How many bytes a client may pipeline while its requests wait for a frame to be sent:
// more than the largest single item.
constexpr std::size_t maxPendingInput = 128 * std::size_t{1024};

}  // namespace

RtspConnection::RtspConnection(RtspServer& server, UniqueFd clientSocket, DescriptorBudget::Share share,
                               sockaddr_storage const& clientAddress)
    : RTSPClientConnection(server, clientSocket.release(), clientAddress),
      m_Server(server),
      m_Descriptor(std::move(share)),
      m_Watch(envir().taskScheduler(), fOurSocket,
              [this](int conditions) KAVO_REQUIRES(eventLoopRole) {
                guarded([&]() KAVO_REQUIRES(eventLoopRole) { handleSocket(conditions); });
              }),
      m_NextTurn(envir().taskScheduler(),
                 [this]()
                     KAVO_REQUIRES(eventLoopRole) { guarded([&]() KAVO_REQUIRES(eventLoopRole) { handleAll(); }); }),
      m_Writer(std::make_shared<InterleavedWriter>(envir().taskScheduler(), fOurSocket,
                                                   [this](bool wanted) KAVO_REQUIRES(eventLoopRole) {
                                                     m_WantsToWrite = wanted;
                                                     watch();
                                                   })) {
  // Replaces live555's handler, which would also wait for urgent data and never read it.
  watch();
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

std::string RtspConnection::user() const { return m_Server.m_Users == nullptr ? "" : request().credential("username"); }

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

template <class Function>
void RtspConnection::guarded(Function const& function) {
  auto const alive = m_Alive;
  if (!contained(function) && *alive) {
    fCurrentCSeq = nullptr;  // live555 frees it before it has memory for the next
    delete this;
  }
}

// Does not read more while items already read wait for their turn.
void RtspConnection::watch() {
  int const conditions = (m_NextTurn.isPending() ? 0 : SOCKET_READABLE) | (m_WantsToWrite ? SOCKET_WRITABLE : 0);
  conditions != 0 ? m_Watch.start(conditions) : m_Watch.stop();
}

void RtspConnection::handleSocket(int conditions) {
  eventLoopRole.assertHeld();
  bool here = true;
  if ((conditions & SOCKET_WRITABLE) != 0) {
    m_Writer->flush();
    here = handleAll();  // requests that were held back
  }
  if (here && (conditions & SOCKET_READABLE) != 0 && !m_NextTurn.isPending()) {
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

// Handles some of the items read, then lets other connections be served. False if the
// connection was closed.
bool RtspConnection::handleAll() {
  eventLoopRole.assertHeld();
  m_NextTurn.stop();
  Next next = Next::Item;
  for (int i = 0; i < itemsInATurn && next == Next::Item; ++i) {
    next = handleNext();
  }
  if (next == Next::Gone) {
    return false;
  }
  if (next == Next::Item) {
    m_NextTurn.start(std::chrono::microseconds::zero());
  }
  watch();
  return true;
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
      m_IsHandlingRequest = true;
      handleRequest();
      if (!*alive) {
        return Next::Gone;
      }
      m_IsHandlingRequest = false;
      if (m_WrongPasswords < mostWrongPasswords) {
        return Next::Item;
      }
      delete this;
      return Next::Gone;
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
  Request request = this->request();
  if (auto const status = refusalOf(request); !status.empty()) {
    answer(status);
    return;
  }
  request.path = m_Server.pathOf(request.path);
  auto const text = request.text();
  resetRequestBuffer();
  std::memcpy(fRequestBuffer, text.data(), text.size());
  auto& server = m_Server;
  auto const address = fClientAddr;
  handleRequestBytes(static_cast<int>(text.size()));
  server.removeFailedSession();
  if (auto* const playing = request.method == "PLAY" ? server.sessionOf(request.session, address) : nullptr) {
    playing->begin();
  }
}

std::string_view RtspConnection::refusalOf(Request const& request) {
  bool const isKnown = std::ranges::find(answeredMethods, request.method) != std::end(answeredMethods);
  if (!isKnown) {
    return "405 Method Not Allowed";
  }
  if (!request.isVersionServed) {
    return "505 RTSP Version Not Supported";
  }
  if (request.cseq.empty()) {
    return "400 Bad Request";
  }
  if (!request.require.empty()) {
    return "551 Option Not Supported";
  }
  if (request.method == "DESCRIBE" && !request.acceptsSdp) {
    return "406 Not Acceptable";
  }
  if (!request.session.empty() && m_Server.sessionOf(request.session, fClientAddr) == nullptr) {
    return "454 Session Not Found";
  }
  if ((request.method == "SETUP" || request.method == "DESCRIBE") && !MemoryReserve::refill()) {
    g_Journal->refused(Refusal::Limit, fClientAddr, "out of memory");
    return "503 Service Unavailable";
  }
  return "";
}

// live555 calls this for DESCRIBE and SETUP and, if it returns False, sends the response made
// here. A new session evicts another only once it is clear that the request will not fail.
Boolean RtspConnection::authenticationOK(char const* method, char const* urlSuffix, char const* /*fullRequest*/) {
  eventLoopRole.assertHeld();
  if (!hasValidCredentials(method, urlSuffix)) {
    return False;
  }
  bool const isNewSession = method == std::string_view("SETUP") && request().session.empty();
  if (!isNewSession || !acceptableTransport(request().transport) || m_Server.streamOf(request().path).empty()) {
    return True;
  }
  if (m_Sessions.size() < maxSessions && m_Server.makeRoomForSession(fClientAddr)) {
    return True;
  }
  g_Journal->refused(Refusal::Limit, fClientAddr, "too many sessions");
  refuse("453 Not Enough Bandwidth");
  return False;
}

bool RtspConnection::hasValidCredentials(char const* method, char const* urlSuffix) {
  if (m_Server.m_Users == nullptr) {
    return true;
  }
  auto const stream = m_Server.streamOf(request().path);
  auto const uri = Request::pathOf(request().credential("uri"));
  bool const isForThis = !request().authorization.empty() && m_Server.m_Brake.mayTry(fClientAddr) &&
                         stream == m_Server.streamOf(uri) && (!stream.empty() || request().path == uri);
  // live555 sees only the one header that it looks for; without it, it responds with a challenge.
  std::string const header = "Authorization: " + (isForThis ? request().authorization : "") + "\r\n\r\n";
  if (RTSPClientConnection::authenticationOK(method, urlSuffix, header.c_str())) {
    return true;
  }
  // A request without credentials is the usual way to learn that they are required.
  if (!request().authorization.empty()) {
    ++m_WrongPasswords;
    m_Server.m_Brake.wrong(fClientAddr);
  }
  if (!request().authorization.empty() || !request().session.empty()) {
    g_Journal->refused(Refusal::User, fClientAddr, "no valid user and password");
  }
  return false;
}

// Receivers would count the packets between the sequence number in RTP-Info and their first one as lost.
void RtspConnection::withdrawSequence() {
  auto* const text = reinterpret_cast<char*>(fResponseBuffer);
  std::string_view const response = text;
  auto const sequence = response.rfind(";seq=");  // the last one: a stream may have this in its name
  if (sequence != std::string_view::npos) {
    auto const rest = response.substr(response.find_first_of(";\r", sequence + 1));
    std::memmove(text + sequence, rest.data(), rest.size() + 1);
  }
}

// Responds to a request that live555 does not see.
void RtspConnection::answer(std::string_view status) {
  std::string response = "RTSP/1.0 " + std::string(status) + "\r\n";
  if (!request().cseq.empty()) {
    response += "CSeq: " + request().cseq + "\r\n";
  }
  if (status.starts_with("405")) {
    response += "Allow: OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER\r\n";
  } else if (status.starts_with("551")) {
    response += "Unsupported: " + request().require + "\r\n";
  }
  response += "\r\n";
  send(fClientOutputSocket, response.data(), response.size(), MSG_NOSIGNAL);
}

}  // namespace kavo::impl
