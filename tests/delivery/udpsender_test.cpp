#include "delivery/udpsender.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <initializer_list>
#include <vector>

#include "delivery/udpreceiver.h"
#include "rtp/packets.h"

using namespace kavo::impl;

namespace {

// A frame with packets of these sizes; the first 12 bytes of each are its RTP header.
class Packets {
 public:
  explicit Packets(std::vector<std::size_t> const& sizes) : m_Payload(2000, 7) {
    m_Packets.begin({.payloadType = 96, .sequence = 1, .timestamp = 2, .ssrc = 3});
    for (std::size_t const size : sizes) {
      m_Packets.add({}, std::span(m_Payload).first(size - FramePackets::rtpHeaderSize), false);
    }
  }

  std::vector<reassembly::Bytes> packets() { return reassembly::packetsOf(m_Packets); }

  void send(UdpSender& udp, int socket, std::initializer_list<UdpDestination*> destinations) {
    m_Packets.end();
    udp.send(socket, m_Packets, 0, m_Packets.count(), std::vector(destinations));
  }

 private:
  std::vector<std::uint8_t> m_Payload;
  FramePackets m_Packets;
};

// Errors that the kernel, or a filter in front of it, returns instead of sending.
int g_Refusal = 0;

}  // namespace

extern "C" int sendmmsg(int socket, mmsghdr* messages, unsigned count, int flags) {
  errno = g_Refusal;
  return g_Refusal != 0 ? -1 : static_cast<int>(syscall(SYS_sendmmsg, socket, messages, count, flags));
}

// The same packets arrive in the same order, whichever system call sends them.
TEST(UdpSender, SendsEveryPacketToEveryDestination) {
  std::vector<std::size_t> const frames[] = {
      {100},
      {1400, 1400, 1400, 300},
      {13, 20, 1400, 1400, 700, 1400, 1400, 1400},
      std::vector<std::size_t>(70, 1400),  // more than one segmented send carries
      std::vector<std::size_t>(150, 90),
  };
  UniqueFd const sender(socket(AF_INET, SOCK_DGRAM, 0));
  for (std::size_t round = 0; round < 4 * std::size(frames); ++round) {
    auto const& sizes = frames[round % std::size(frames)];
    g_Refusal = std::array{0, ENOSYS, EPERM, EINVAL}[round / std::size(frames)];
    UdpSender udp;
    Packets frame(sizes);
    UdpReceiver receivers[3];
    UdpDestination a{.address = receivers[0].address};
    UdpDestination b{.address = receivers[1].address, .segmentation = false};
    UdpDestination c{.address = receivers[2].address};
    frame.send(udp, sender.get(), {&a, &b, &c});
    for (auto const& receiver : receivers) {
      EXPECT_EQ(receiver.packets(), frame.packets()) << sizes.size() << " packets";
    }
    EXPECT_EQ(a.lost + b.lost + c.lost, 0U);
  }
  g_Refusal = 0;
}

// A path that refuses segmentation, a path that refuses everything, and a path known to be too narrow
// for a packet do not affect the other paths.
TEST(UdpSender, ARefusedDestinationDoesNotAffectOthers) {
  UniqueFd const sender(socket(AF_INET, SOCK_DGRAM, 0));
  UdpReceiver receivers[2];
  UdpDestination first{.address = receivers[0].address};
  UdpDestination refused{.address = receivers[0].address};
  reinterpret_cast<sockaddr_in&>(refused.address).sin_port = 0;  // EINVAL
  UdpDestination narrow{.address = receivers[0].address, .exceedsMtu = true};
  UdpDestination last{.address = receivers[1].address};
  Packets frame({1400, 1400, 500});
  UdpSender udp;
  for (std::uint64_t round = 1; round <= 2; ++round) {
    frame.send(udp, sender.get(), {&first, &refused, &narrow, &last});
    EXPECT_EQ(receivers[0].packets(), frame.packets());
    EXPECT_EQ(receivers[1].packets(), frame.packets());
    EXPECT_EQ(refused.lost, 3 * round) << "what was refused is not counted";
    EXPECT_EQ(narrow.lost, 3 * round);
  }
  EXPECT_TRUE(first.segmentation && last.segmentation);
  EXPECT_FALSE(refused.segmentation || refused.exceedsMtu);
}
