#include "delivery/udpsender.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <memory>

#include "base/descriptor.h"

using namespace kavo;

namespace {

struct Receiver {
  Receiver() : socket(::socket(AF_INET, SOCK_DGRAM, 0)) {
    int const room = 4 * 1024 * 1024;
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    auto& local = reinterpret_cast<sockaddr_in&>(address);
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof local;
    bind(socket.get(), reinterpret_cast<sockaddr*>(&address), size);
    getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size);
  }

  std::vector<std::vector<std::uint8_t>> packets() const {
    std::vector<std::vector<std::uint8_t>> result;
    std::uint8_t block[65536];
    ssize_t size;
    while ((size = recv(socket.get(), block, sizeof block, MSG_DONTWAIT)) >= 0) {
      result.emplace_back(block, block + size);
    }
    return result;
  }

  Descriptor socket;
  sockaddr_storage address{};
};

std::vector<std::vector<std::uint8_t>> packetsOf(std::vector<std::size_t> const& sizes) {
  std::vector<std::vector<std::uint8_t>> packets;
  for (std::size_t const size : sizes) {
    packets.emplace_back(size, static_cast<std::uint8_t>(packets.size() + 1));
  }
  return packets;
}

PacketRun runOf(std::vector<std::vector<std::uint8_t>> const& packets) {
  PacketRun run;
  for (auto const& packet : packets) {
    run.add(packet);
  }
  return run;
}

}  // namespace

// The same packets in the same order, whichever way the kernel is asked.
TEST(UdpSender, SendsEveryPacketToEveryDestination) {
  std::vector<std::size_t> const runs[] = {
      {100},
      {1400, 1400, 1400, 300},
      {12, 8, 1400, 1400, 700, 1400, 1400, 1400},
      std::vector<std::size_t>(70, 1400),  // more than one segmented send may carry
      std::vector<std::size_t>(150, 90),
  };
  Descriptor const sender(socket(AF_INET, SOCK_DGRAM, 0));
  for (bool const segmentation : {true, false}) {
    UdpSender udp(segmentation);
    for (auto const& sizes : runs) {
      std::vector<std::unique_ptr<Receiver>> receivers;
      std::vector<sockaddr_storage> addresses;
      for (int i = 0; i < 3; ++i) {
        receivers.push_back(std::make_unique<Receiver>());
        addresses.push_back(receivers.back()->address);
      }
      auto const packets = packetsOf(sizes);
      udp.send(sender.get(), runOf(packets), addresses);
      for (auto const& receiver : receivers) {
        EXPECT_EQ(receiver->packets(), packets) << sizes.size() << " packets, segmentation " << segmentation;
      }
    }
    EXPECT_EQ(udp.lost(), 0U);
  }
}

TEST(UdpSender, ARefusedDestinationDisturbsNoOther) {
  Descriptor const sender(socket(AF_INET, SOCK_DGRAM, 0));
  Receiver first;
  Receiver last;
  sockaddr_storage refused = first.address;
  reinterpret_cast<sockaddr_in&>(refused).sin_port = 0;  // EINVAL, which also says "no segmentation"
  sockaddr_storage const addresses[] = {first.address, refused, last.address};
  auto const packets = packetsOf({1400, 1400, 500});
  UdpSender udp;
  for (int round = 1; round <= 2; ++round) {
    udp.send(sender.get(), runOf(packets), addresses);
    EXPECT_EQ(first.packets(), packets);
    EXPECT_EQ(last.packets(), packets);
    EXPECT_EQ(udp.lost(), 3U * static_cast<unsigned>(round)) << "what was refused is not counted";
  }
}
