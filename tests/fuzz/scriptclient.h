// A client of rtspsession_fuzz.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/uniquefd.h"

[[noreturn]] inline void fail(char const* what) {
  std::fprintf(stderr, "rtspsession: %s\n", what);
  std::abort();
}

// ::1, or 127.0.0.1 as an IPv4-mapped address.
inline sockaddr_in6 loopback(bool ipv6, int port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  inet_pton(AF_INET6, ipv6 ? "::1" : "::ffff:127.0.0.1", &address.sin6_addr);
  address.sin6_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

// A connection of the script, and what the server has sent on it.
class Client {
 public:
  // Number 2 reads slowly, number 3 connects over IPv6.
  explicit Client(unsigned number) : m_IsSlow(number == 2), m_Ipv6(number == 3) {}

  bool isOpen() const { return m_Socket.get() >= 0; }
  bool isPlaying() const { return m_IsPlaying; }
  int frames() const { return m_Frames; }
  std::string const& session() const { return m_Session; }
  std::string const& ssrc() const { return m_Ssrc; }
  std::string const& lastReport() const { return m_LastReport; }

  // Waits at most so long for a response.
  void send(std::uint32_t port, std::string const& bytes, int milliseconds = 5) {
    if (!isOpen()) {
      open(port);
    }
    (void)::send(m_Socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    await(bytes.find("\r\n\r\n") != std::string::npos ? milliseconds : 0);
  }

  // Reads what has arrived, after waiting at most so long for something.
  void await(int milliseconds) {
    char block[16384];
    pollfd readable{m_Socket.get(), POLLIN, 0};
    while (isOpen() && poll(&readable, 1, milliseconds) > 0) {
      ssize_t const size = recv(m_Socket.get(), block, m_IsSlow ? 1000 : sizeof block, MSG_DONTWAIT);
      if (size <= 0) {
        m_Socket = kavo::impl::UniqueFd();
        return;
      }
      note(std::string_view(block, static_cast<std::size_t>(size)));
      m_Stream.append(block, static_cast<std::size_t>(size));
      takePackets();
      milliseconds = 0;
      if (m_IsSlow) {
        break;
      }
    }
    for (ssize_t size; m_Udp.get() >= 0 && (size = recv(m_Udp.get(), block, sizeof block, MSG_DONTWAIT)) > 0;) {
      note(std::string_view(block, static_cast<std::size_t>(size)));
      countFrame(std::string_view(block, static_cast<std::size_t>(size)));
    }
  }

  void sendReport(std::string const& bytes) const {
    auto const address = loopback(m_Ipv6, m_ServerPort + 1);
    (void)sendto(m_Udp.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr const*>(&address),
                 sizeof address);
  }

  std::string ports() {
    auto any = loopback(m_Ipv6, 0);
    socklen_t size = sizeof any;
    if (m_Udp.get() < 0) {
      m_Udp = kavo::impl::UniqueFd(socket(any.sin6_family, SOCK_DGRAM, 0));
      bind(m_Udp.get(), reinterpret_cast<sockaddr const*>(&any), size);
    }
    getsockname(m_Udp.get(), reinterpret_cast<sockaddr*>(&any), &size);
    auto const port = std::to_string(ntohs(any.sin6_port));
    return port + "-" + port;  // reports are sent from the port that receives frames
  }

  void finish() { shutdown(m_Socket.get(), SHUT_WR); }
  void vanish() {
    linger const none{1, 0};
    setsockopt(m_Socket.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    m_Socket = kavo::impl::UniqueFd();
  }

 private:
  void open(std::uint32_t port) {
    m_Socket = kavo::impl::UniqueFd(socket(AF_INET6, SOCK_STREAM, 0));
    int const little = 2048;
    if (m_IsSlow) {
      setsockopt(m_Socket.get(), SOL_SOCKET, SO_RCVBUF, &little, sizeof little);
    }
    auto const address = loopback(m_Ipv6, static_cast<int>(port));
    if (connect(m_Socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
      fail("the server does not listen");
    }
  }

  void note(std::string_view said) {
    auto const valueOf = [&](std::string_view name) {
      auto const at = said.find(name);
      auto const from = at == std::string::npos ? said.size() : at + name.size();
      return std::string(said.substr(from, said.find_first_of(";-\r\n", from) - from));
    };
    if (auto const session = valueOf("Session: "); !session.empty()) {
      m_Session = session;
    }
    if (auto const port = valueOf("server_port="); !port.empty()) {
      m_ServerPort = std::atoi(port.c_str());
    }
    m_IsPlaying = m_IsPlaying || !valueOf("RTP-Info: ").empty();
    constexpr std::string_view senderReport("\x80\xc8\x00\x06", 4);
    if (auto const at = said.find(senderReport); at != std::string_view::npos && said.size() >= at + 28) {
      m_Ssrc = said.substr(at + 4, 4);
      m_LastReport = said.substr(at + 10, 4);
    }
  }

  void countFrame(std::string_view packet) {
    m_Frames += packet.size() > 12 && (packet[1] == '\x9A' || packet[1] == '\xE0') ? 1 : 0;  // with its marker
  }

  // Takes responses and packets from the connection's stream, up to a response with a body.
  void takePackets() {
    for (std::size_t size = 0;; m_Stream.erase(0, size)) {
      if (m_Stream.size() >= 4 && m_Stream[0] == '$') {
        size = 4 + static_cast<std::uint8_t>(m_Stream[2]) * 256U + static_cast<std::uint8_t>(m_Stream[3]);
        countFrame(std::string_view(m_Stream).substr(4, size - 4));
      } else {
        size = m_Stream.starts_with("RTSP/1.0 ") ? m_Stream.find("\r\n\r\n") + 4 : 3;
      }
      if (size < 4 || size > m_Stream.size()) {
        return;
      }
    }
  }

  bool const m_IsSlow;
  bool const m_Ipv6;
  kavo::impl::UniqueFd m_Socket;
  kavo::impl::UniqueFd m_Udp;
  std::string m_Stream;
  int m_Frames = 0;
  bool m_IsPlaying = false;
  int m_ServerPort = 0;
  std::string m_Session = "none";
  std::string m_Ssrc = std::string(4, 9);
  std::string m_LastReport = std::string(4, 0);
};
