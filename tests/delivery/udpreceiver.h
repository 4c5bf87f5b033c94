// A UDP socket whose buffer holds everything that a test sends.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <vector>

#include "base/uniquefd.h"

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
