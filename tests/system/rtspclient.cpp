#include "system/rtspclient.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

namespace {

int socketOf(int type) {
  int const socket = ::socket(AF_INET6, type, 0);
  sockaddr_in6 any{};
  any.sin6_family = AF_INET6;  // and IPv4, unless the system limits it to IPv6
  bind(socket, reinterpret_cast<sockaddr const*>(&any), sizeof any);
  return socket;
}

int portOf(int socket) {
  sockaddr_in6 address{};
  socklen_t size = sizeof address;
  getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin6_port);
}

}  // namespace

sockaddr_in6 loopback(bool ipv6, int port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  inet_pton(AF_INET6, ipv6 ? "::1" : "::ffff:127.0.0.1", &address.sin6_addr);
  address.sin6_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

std::string RtspClient::Response::header(std::string const& name) const {
  auto const at = text.find("\r\n" + name + ": ");
  if (at == std::string::npos) {
    return "";
  }
  auto const begin = at + name.size() + 4;
  return text.substr(begin, text.find("\r\n", begin) - begin);
}

RtspClient::RtspClient(std::uint32_t port, int limitMilliseconds)
    : m_Socket(socketOf(SOCK_STREAM)), m_Limit(limitMilliseconds) {
  auto const address = loopback(false, static_cast<int>(port));
  if (connect(m_Socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
    close(m_Socket);
    m_Socket = -1;
  }
}

RtspClient::~RtspClient() {
  for (int const socket : {m_Socket, m_Udp[0], m_Udp[1]}) {
    close(socket);
  }
}

// Reads until the buffer holds at least this many bytes.
bool RtspClient::fill(std::size_t bytes) {
  while (m_Buffer.size() < bytes) {
    char block[65536];
    pollfd readable{m_Socket, POLLIN, 0};
    ssize_t const got = poll(&readable, 1, m_Limit) > 0 ? recv(m_Socket, block, sizeof block, 0) : 0;
    if (got <= 0) {
      return false;
    }
    m_Buffer.append(block, static_cast<std::size_t>(got));
  }
  return true;
}

// The next RTP or RTCP packet; empty if none arrives.
std::vector<std::uint8_t> RtspClient::packet() {
  std::vector<std::uint8_t> bytes;
  if (m_Udp[0] >= 0) {
    pollfd readable{m_Udp[0], POLLIN, 0};
    bytes.resize(poll(&readable, 1, m_Limit) > 0 ? 2048 : 0);
    bytes.resize(
        static_cast<std::size_t>(std::max<ssize_t>(recv(m_Udp[0], bytes.data(), bytes.size(), MSG_DONTWAIT), 0)));
  } else if (fill(4) && m_Buffer[0] == '$') {
    std::size_t const size = 4 + static_cast<std::uint8_t>(m_Buffer[2]) * 256U + static_cast<std::uint8_t>(m_Buffer[3]);
    if (fill(size)) {
      bytes.assign(m_Buffer.begin() + 4, m_Buffer.begin() + static_cast<std::ptrdiff_t>(size));
      m_Buffer.erase(0, size);
    }
  }
  return bytes;
}

RtspClient::Response RtspClient::request(std::string const& method, std::string const& url,
                                         std::string const& headers) {
  std::string const bytes = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_CSeq) + "\r\n" +
                            (m_Session.empty() ? "" : "Session: " + m_Session + "\r\n") + headers + "\r\n";
  (void)send(m_Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
  Response response;
  while (fill(1) && m_Buffer[0] == '$') {
    if (packet().empty()) {
      return response;
    }
  }
  std::size_t end;
  while ((end = m_Buffer.find("\r\n\r\n")) == std::string::npos) {
    if (!fill(m_Buffer.size() + 1)) {
      return response;
    }
  }
  response.text = m_Buffer.substr(0, end + 4);
  response.status = std::atoi(response.text.c_str() + std::min<std::size_t>(9, response.text.size()));
  std::size_t const size = end + 4 + static_cast<std::size_t>(std::atoi(response.header("Content-Length").c_str()));
  fill(size);
  response.text = m_Buffer.substr(0, size);
  m_Buffer.erase(0, size);
  if (auto const session = response.header("Session"); !session.empty()) {
    m_Session = session.substr(0, session.find(';'));
  }
  return response;
}

bool RtspClient::play(std::string const& url) {
  return request("SETUP", url + "/track1", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n").status == 200 &&
         request("PLAY", url).status == 200;
}

bool RtspClient::playOverUdp(std::string const& url) {
  std::string ports;
  for (int& socket : m_Udp) {
    socket = socketOf(SOCK_DGRAM);
    ports += (ports.empty() ? "" : "-") + std::to_string(portOf(socket));
  }
  return request("SETUP", url + "/track1", "Transport: RTP/AVP;unicast;client_port=" + ports + "\r\n").status == 200 &&
         request("PLAY", url).status == 200;
}

bool RtspClient::receivesAFrame() {
  for (int markers = 0; markers < 2;) {
    auto const bytes = packet();
    if (bytes.empty()) {
      return false;
    }
    markers += bytes.size() > 12 && (bytes[1] == 0x80 + 26 || bytes[1] == 0x80 + 96) ? 1 : 0;
  }
  return true;
}

std::uint32_t freePort() {
  int const socket = socketOf(SOCK_STREAM);
  auto const port = static_cast<std::uint32_t>(portOf(socket));
  close(socket);
  return port;
}
