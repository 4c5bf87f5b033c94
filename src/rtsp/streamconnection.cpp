#include "rtsp/streamconnection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "rtsp/streamserver.h"

namespace kavo {

namespace {

// HTTP tunnels, REGISTER, ANNOUNCE and RECORD are not among them.
constexpr std::string_view answeredMethods[] = {"OPTIONS", "DESCRIBE", "SETUP",         "PLAY",
                                                "PAUSE",   "TEARDOWN", "GET_PARAMETER", "SET_PARAMETER"};

}  // namespace

StreamConnection::StreamConnection(StreamServer& server, int clientSocket, sockaddr_storage const& clientAddress)
    : RTSPClientConnection(server, clientSocket, clientAddress), m_Server(server), m_Place(server.enlist(*this)) {
  // A packet leaves in several writes; without this the last of them would wait
  // for the client's delayed acknowledgement of the first, 40 ms.
  int const on = 1;
  setsockopt(clientSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

StreamConnection::~StreamConnection() {
  eventLoopRole.assertHeld();
  m_Server.strike(m_Place);
  if (m_Deleted != nullptr) {
    *m_Deleted = true;
  }
}

bool StreamConnection::hasSession() const { return m_Server.knowsSession(m_SessionId); }

void StreamConnection::handleRequestBytes(int newBytesRead) {
  eventLoopRole.assertHeld();
  if (newBytesRead <= 0 || static_cast<unsigned>(newBytesRead) > fRequestBufferBytesLeft) {
    RTSPClientConnection::handleRequestBytes(-1);  // the client is gone
    return;
  }
  m_LastHeard = Clock::now();
  m_Server.noteHeard(m_Place);
  m_Reader.add({reinterpret_cast<char const*>(fRequestBuffer) + fRequestBytesAlreadySeen,
                static_cast<std::size_t>(newBytesRead)});
  while (handleNext()) {
  }
}

// Handles what has arrived next; false when there is no more, or nobody to go on with.
bool StreamConnection::handleNext() {
  switch (m_Reader.next()) {
    case RequestReader::Item::Interleaved:  // of a viewer that does not play (any more)
      return true;
    case RequestReader::Item::Request: {
      bool deleted = false;
      m_Deleted = &deleted;
      handleRequest();
      if (!deleted) {
        m_Deleted = nullptr;
      }
      return !deleted;
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

void StreamConnection::handleRequest() {
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
void StreamConnection::answer(char const* status) {
  std::string response = std::string("RTSP/1.0 ") + status + "\r\n";
  if (auto const sequence = headerValue(m_Reader.text(), "CSeq"); !sequence.empty()) {
    response += "CSeq: " + std::string(sequence) + "\r\n";
  }
  response += "Allow: OPTIONS, DESCRIBE, SETUP, TEARDOWN, PLAY, PAUSE, GET_PARAMETER, SET_PARAMETER\r\n\r\n";
  send(fClientOutputSocket, response.data(), response.size(), MSG_NOSIGNAL);
}

}  // namespace kavo
