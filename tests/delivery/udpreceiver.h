// Sockets of viewers over UDP.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "base/uniquefd.h"
#include "rtp/reassembly.h"

// A socket whose buffer holds everything that a test sends.
struct UdpReceiver {
  // Binds to 127.0.0.LAST, on the given port or a free one.
  explicit UdpReceiver(std::uint8_t last = 1, std::uint16_t port = 0) : socket(::socket(AF_INET, SOCK_DGRAM, 0)) {
    int const room = 4 * 1024 * 1024;
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    auto& local = reinterpret_cast<sockaddr_in&>(address);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(0x7F000000U + last);
    local.sin_port = htons(port);
    socklen_t size = sizeof local;
    EXPECT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&local), size), 0);
    getsockname(socket.get(), reinterpret_cast<sockaddr*>(&local), &size);
  }

  std::uint16_t port() const { return ntohs(reinterpret_cast<sockaddr_in const&>(address).sin_port); }

  std::vector<std::vector<std::uint8_t>> packets() const {
    std::vector<std::vector<std::uint8_t>> result;
    std::uint8_t block[65536];
    for (ssize_t size; (size = recv(socket.get(), block, sizeof block, MSG_DONTWAIT)) >= 0;) {
      result.emplace_back(block, block + size);
    }
    return result;
  }

  void send(std::vector<std::uint8_t> const& packet, std::uint16_t to) const {
    sockaddr_in server{};
    server.sin_family = AF_INET;
    server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    server.sin_port = htons(to);
    EXPECT_EQ(
        sendto(socket.get(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&server), sizeof server),
        static_cast<ssize_t>(packet.size()));
  }

  kavo::impl::UniqueFd socket;
  sockaddr_storage address{};
};

// A viewer's two ports, and the frames that have arrived.
struct Player {
  struct Frame {
    std::uint32_t time;  // RTP time
    bool isComplete;
  };

  explicit Player(std::uint8_t last = 1, std::uint16_t port = 0) : rtp(last, port), rtcp(last) {}

  // Reads what has arrived. Returns all frames so far; the packets of each must follow one another.
  std::vector<Frame> const& read() {
    for (auto const& packet : rtp.packets()) {
      auto const number = static_cast<std::uint16_t>(reassembly::numberAt(packet, 2, 2));
      auto const time = reassembly::numberAt(packet, 4, 4);
      if (frames.empty() || frames.back().time != time) {
        gaps += first && number != next ? 1 : 0;
        frames.push_back({time, false});
      } else {
        EXPECT_EQ(number, next) << "a packet is missing";
      }
      frames.back().isComplete = (packet[1] & 0x80) != 0;
      first = first.value_or(number);
      next = static_cast<std::uint16_t>(number + 1);
      payload += packet.size() - 12;
    }
    return frames;
  }

  UdpReceiver rtp;
  UdpReceiver rtcp;
  std::vector<Frame> frames;
  int gaps = 0;                        // between frames
  std::optional<std::uint16_t> first;  // packet
  std::uint16_t next = 0;
  std::size_t payload = 0;  // bytes
};
