#include "server/rtspconnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "server/rtspserver.h"

namespace kavo {

namespace {

// HTTP tunnels, REGISTER, ANNOUNCE and RECORD are not among them.
constexpr std::string_view answeredMethods[] = {"OPTIONS", "DESCRIBE", "SETUP",         "PLAY",
                                                "PAUSE",   "TEARDOWN", "GET_PARAMETER", "SET_PARAMETER"};

// What a client may send ahead while its requests wait for a picture to be sent:
// more than the largest item it can be in the middle of.
constexpr std::size_t maxAhead = 128 * std::size_t{1024};

}  // namespace

RtspConnection::RtspConnection(RtspServer& server, int clientSocket, sockaddr_storage const& clientAddress)
    : RTSPClientConnection(server, clientSocket, clientAddress),
      m_Server(server),
      m_Place(server.enlist(*this)),
      m_Output(std::make_shared<InterleavedWriter>(clientSocket, [this](bool wait) {
        eventLoopRole.assertHeld();
        waitForRoom(wait);
      })) {
  waitForRoom(false);
}

RtspConnection::~RtspConnection() {
  eventLoopRole.assertHeld();
  m_Output->close();
  m_Server.strike(m_Place);
  *m_Alive = false;
}

void RtspConnection::waitForRoom(bool wait) {
  envir().taskScheduler().setBackgroundHandling(
      fOurSocket, SOCKET_READABLE | SOCKET_EXCEPTION | (wait ? SOCKET_WRITABLE : 0), onSocket, this);
}

void RtspConnection::onSocket(void* connection, int conditions) {
  eventLoopRole.assertHeld();
  auto* const self = static_cast<RtspConnection*>(connection);
  auto const alive = self->m_Alive;
  if ((conditions & SOCKET_WRITABLE) != 0) {
    self->m_Output->flush();
    self->handleAll();  // what was held back
  }
  if (*alive && (conditions & SOCKET_READABLE) != 0) {
    self->incomingRequestHandler();
  }
}

bool RtspConnection::hasSession() const { return m_Server.knowsSession(m_SessionId); }

void RtspConnection::noteProgress() {
  if (m_Output->hasProgressed()) {
    m_Server.noteLiveness(m_SessionId);
  }
}

void RtspConnection::handleRequestBytes(int newBytesRead) {
  eventLoopRole.assertHeld();
  if (newBytesRead <= 0 || static_cast<unsigned>(newBytesRead) > fRequestBufferBytesLeft) {
    RTSPClientConnection::handleRequestBytes(-1);  // the client is gone
    return;
  }
  m_HasSpoken = true;
  m_LastHeard = Clock::now();
  m_Server.noteHeard(m_Place);
  m_Reader.add({reinterpret_cast<char const*>(fRequestBuffer) + fRequestBytesAlreadySeen,
                static_cast<std::size_t>(newBytesRead)});
  auto const alive = m_Alive;
  handleAll();
  if (*alive && m_Reader.size() > maxAhead) {
    RTSPClientConnection::handleRequestBytes(-1);  // it sends, and does not read
  }
}

void RtspConnection::handleAll() {
  while (handleNext()) {
  }
}

// Handles what has arrived next; false when there is no more, or nobody to go on with.
bool RtspConnection::handleNext() {
  if (m_Reader.hasRequest() && !m_Output->admitsResponse()) {
    return false;
  }
  switch (m_Reader.next()) {
    case RequestReader::Item::Interleaved:  // a receiver's report
      m_Server.noteLiveness(m_SessionId);
      return true;
    case RequestReader::Item::Request: {
      auto const alive = m_Alive;
      handleRequest();
      return *alive;
    }
    case RequestReader::Item::Malformed:
      answer("400 Bad Request");
      RTSPClientConnection::handleRequestBytes(-1);
      return false;
    case RequestReader::Item::Incomplete:
      return false;
  }
  return false;
}

void RtspConnection::handleRequest() {
  if (std::find(std::begin(answeredMethods), std::end(answeredMethods), m_Reader.method()) ==
      std::end(answeredMethods)) {
    answer("405 Method Not Allowed");
    return;
  }
  auto const text = m_Reader.text();
  resetRequestBuffer();
  std::memcpy(fRequestBuffer, text.data(), text.size());
  RTSPClientConnection::handleRequestBytes(static_cast<int>(text.size()));
}

// A response of our own, to a request that live555 does not get to see.
void RtspConnection::answer(char const* status) {
  std::string response = std::string("RTSP/1.0 ") + status + "\r\n";
  if (auto const sequence = headerValue(m_Reader.text(), "CSeq"); !sequence.empty()) {
    response += "CSeq: " + std::string(sequence) + "\r\n";
  }
  response += "Allow: OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER\r\n\r\n";
  send(fClientOutputSocket, response.data(), response.size(), MSG_NOSIGNAL);
}

}  // namespace kavo
