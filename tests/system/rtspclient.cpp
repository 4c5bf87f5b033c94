#include "system/rtspclient.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>

namespace {

using Clock = std::chrono::steady_clock;

bool readable(int socket, int milliseconds) {
  pollfd entry{socket, POLLIN, 0};
  return poll(&entry, 1, milliseconds) > 0;
}

int udpSocket(bool ipv6) {
  int const socket = ::socket(AF_INET6, SOCK_DGRAM, 0);
  auto const any = loopback(ipv6, 0);
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

RtspClient::RtspClient(std::uint32_t port, bool ipv6, int receiveBuffer, int limitMilliseconds)
    : m_Socket(socket(AF_INET6, SOCK_STREAM, 0)), m_Ipv6(ipv6), m_Limit(limitMilliseconds) {
  int const on = 1;
  setsockopt(m_Socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // the server reads each report at once
  if (receiveBuffer > 0) {
    setsockopt(m_Socket, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  }
  auto const address = loopback(ipv6, static_cast<int>(port));
  if (connect(m_Socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
    close(m_Socket);
    m_Socket = -1;
  }
}

RtspClient::~RtspClient() {
  for (int const socket : {m_Socket, m_Udp[0], m_Udp[1]}) {
    if (socket >= 0) {
      close(socket);
    }
  }
}

void RtspClient::closeConnection() {
  close(m_Socket);
  m_Socket = -1;
}

void RtspClient::send(std::string const& bytes) { (void)::send(m_Socket, bytes.data(), bytes.size(), MSG_NOSIGNAL); }

// Reads until the buffer holds at least this many bytes.
bool RtspClient::fill(std::size_t bytes) {
  while (m_Buffer.size() < bytes) {
    char block[65536];
    ssize_t const got = readable(m_Socket, m_Limit) ? recv(m_Socket, block, sizeof block, 0) : 0;
    if (got <= 0) {
      return false;
    }
    m_Buffer.append(block, static_cast<std::size_t>(got));
  }
  return true;
}

RtspClient::Packet RtspClient::datagram() {
  Packet packet;
  pollfd entries[2] = {{m_Udp[0], POLLIN, 0}, {m_Udp[1], POLLIN, 0}};
  if (poll(entries, 2, m_Limit) > 0) {
    packet.channel = entries[0].revents != 0 ? 0 : 1;
    packet.bytes.resize(2048);
    ssize_t const size = recv(m_Udp[packet.channel], packet.bytes.data(), packet.bytes.size(), 0);
    packet.bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  }
  return packet;
}

RtspClient::Packet RtspClient::packet() {
  if (m_Udp[0] >= 0) {
    return datagram();
  }
  Packet packet;
  if (!fill(4) || m_Buffer[0] != '$') {
    return packet;
  }
  auto const byte = [&](std::size_t at) { return static_cast<std::uint8_t>(m_Buffer[at]); };
  std::size_t const size = byte(2) * 256U + byte(3);
  if (!fill(4 + size)) {
    return packet;
  }
  packet.channel = byte(1);
  packet.bytes.assign(m_Buffer.begin() + 4, m_Buffer.begin() + static_cast<std::ptrdiff_t>(4 + size));
  m_Buffer.erase(0, 4 + size);
  return packet;
}

RtspClient::Response RtspClient::request(std::string const& method, std::string const& url,
                                         std::string const& headers) {
  send(method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_CSeq) + "\r\n" +
       (m_Session.empty() ? "" : "Session: " + m_Session + "\r\n") + headers + "\r\n");
  Response response;
  while (fill(1) && m_Buffer[0] == '$') {
    ++m_Dropped;
    if (packet().channel < 0) {
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
  std::size_t const body = static_cast<std::size_t>(std::atoi(response.header("Content-Length").c_str()));
  fill(end + 4 + body);
  response.text = m_Buffer.substr(0, end + 4 + body);
  m_Buffer.erase(0, end + 4 + body);
  if (auto const session = response.header("Session"); !session.empty()) {
    m_Session = session.substr(0, session.find(';'));
  }
  return response;
}

bool RtspClient::play(std::string const& url, bool describe) {
  return (!describe || request("DESCRIBE", url).status == 200) &&
         request("SETUP", url + "/track1", overTcp).status == 200 && request("PLAY", url).status == 200;
}

RtspClient::Response RtspClient::setUpOverUdp(std::string const& url) {
  std::string ports;
  for (int& socket : m_Udp) {
    socket = socket < 0 ? udpSocket(m_Ipv6) : socket;
    ports += (ports.empty() ? "" : "-") + std::to_string(portOf(socket));
  }
  auto response = request("SETUP", url + "/track1", "Transport: RTP/AVP;unicast;client_port=" + ports + "\r\n");
  auto const transport = response.header("Transport");
  auto const at = transport.find("server_port=");
  m_ServerPort = at == std::string::npos ? 0 : std::atoi(transport.c_str() + at + 12);
  return response;
}

bool RtspClient::playOverUdp(std::string const& url) {
  return request("DESCRIBE", url).status == 200 && setUpOverUdp(url).status == 200 &&
         request("PLAY", url).status == 200;
}

bool RtspClient::sendToServer(int socket, std::vector<std::uint8_t> const& packet) const {
  auto const address = loopback(m_Ipv6, m_ServerPort + 1);
  return sendto(socket, packet.data(), packet.size(), 0, reinterpret_cast<sockaddr const*>(&address), sizeof address) >=
         0;
}

void RtspClient::sendRtcp(std::vector<std::uint8_t> const& packet, int channel) {
  if (m_Udp[1] >= 0) {
    sendToServer(m_Udp[1], packet);
    return;
  }
  std::string bytes = {'$', static_cast<char>(channel), static_cast<char>(packet.size() >> 8),
                       static_cast<char>(packet.size())};
  send(bytes.append(packet.begin(), packet.end()));
}

void RtspClient::sendUrgentByte() { (void)::send(m_Socket, "x", 1, MSG_OOB | MSG_NOSIGNAL); }

void RtspClient::sendFromElsewhere(std::vector<std::uint8_t> const& packet, int times) {
  int const socket = udpSocket(m_Ipv6);
  for (int i = 0; i < times; ++i) {
    sendToServer(socket, packet);
  }
  close(socket);
}

bool RtspClient::receivesBye() {
  for (auto next = packet(); next.channel >= 0; next = packet()) {
    auto const& bytes = next.bytes;
    for (std::size_t at = 0; next.channel % 2 == 1 && at + 4 <= bytes.size();
         at += 4 * (bytes[at + 2] * 256U + bytes[at + 3] + 1)) {
      if (bytes[at + 1] == 203) {
        return true;
      }
    }
  }
  return false;
}

bool RtspClient::hasPacket() const {
  bool const overUdp = m_Udp[0] >= 0;
  return overUdp ? readable(m_Udp[0], 0) || readable(m_Udp[1], 0) : !m_Buffer.empty() || readable(m_Socket, 0);
}

int RtspClient::nextNalType() {
  while (true) {
    auto const next = packet();
    if (next.channel < 0) {
      return -1;
    }
    if (next.channel == 0 && next.bytes.size() > 13) {
      int const type = next.bytes[12] & 0x1F;
      return type == 28 ? next.bytes[13] & 0x1F : type;
    }
  }
}

bool RtspClient::receivesAFrame() {
  int markers = 0;
  while (markers < 2) {
    auto const next = packet();
    if (next.channel < 0) {
      return false;
    }
    if (next.channel == 0 && next.bytes.size() > 12 && (next.bytes[1] & 0x80) != 0) {
      ++markers;
    }
  }
  return true;
}

bool RtspClient::isClosedWhileReading() {
  char block[4096];
  auto const limit = Clock::now() + std::chrono::milliseconds(m_Limit);
  while (Clock::now() < limit && readable(m_Socket, m_Limit)) {
    if (recv(m_Socket, block, sizeof block, 0) <= 0) {
      return true;
    }
  }
  return false;
}

bool RtspClient::isClosedWhileSending(std::string const& bytes) {
  std::size_t done = 0;
  auto const limit = Clock::now() + std::chrono::milliseconds(m_Limit);
  while (Clock::now() < limit) {
    ssize_t const sent = ::send(m_Socket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN) {
      return true;
    }
    if (sent < 0) {
      pollfd entry{m_Socket, POLLOUT, 0};
      poll(&entry, 1, m_Limit);
    } else {
      done = (done + static_cast<std::size_t>(sent)) % bytes.size();
    }
  }
  return false;
}

std::uint32_t freePort() {
  int const socket = ::socket(AF_INET6, SOCK_STREAM, 0);
  sockaddr_in6 any{};
  any.sin6_family = AF_INET6;  // and IPv4, unless the system limits it to IPv6
  bind(socket, reinterpret_cast<sockaddr*>(&any), sizeof any);
  auto const port = static_cast<std::uint32_t>(portOf(socket));
  close(socket);
  return port;
}
