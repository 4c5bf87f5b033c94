// Clients that misbehave, by accident or on purpose, and other viewers meanwhile.
#include <gtest/gtest.h>
#include <malloc.h>

#include <chrono>
#include <ctime>
#include <functional>
#include <set>
#include <thread>

#include "system/host.h"
#include "system/rtspclient.h"

namespace {

class Hostility : public ::testing::Test {
 protected:
  Hostility() { m_Host.serveLive("stream"); }

  std::string url() const { return m_Host.url("stream"); }

  void expectAFrame() {
    RtspClient viewer(m_Host.port());
    EXPECT_TRUE(viewer.play(url()) && viewer.receivesAFrame());
  }

  void expectEveryPacketOnce(RtspClient& viewer) {
    std::set<int> sequenceNumbers;
    for (int packets = 0; packets < 50;) {
      auto const packet = viewer.packet();
      ASSERT_GE(packet.channel, 0);
      if (packet.channel == 0) {
        ++packets;
        EXPECT_TRUE(sequenceNumbers.insert(packet.bytes[2] * 256 + packet.bytes[3]).second);
      }
    }
  }

  Host m_Host;
};

}  // namespace

TEST_F(Hostility, AViewerWhoAsksTwiceGetsEveryPacketOnce) {
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.playOverUdp(url()));
  ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
  expectEveryPacketOnce(viewer);
}

// Neither a body nor a length that can be read in two ways smuggles in a request.
TEST_F(Hostility, ABodyIsNeverAnswered) {
  std::string const inner =
      "GET /stream HTTP/1.0\r\nx-sessioncookie: a\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n";
  auto const length = "Content-Length: " + std::to_string(inner.size()) + "\r\n";
  RtspClient client(m_Host.port());
  auto const response = client.request("OPTIONS", url(), length + "\r\n" + inner);
  EXPECT_EQ(response.status, 200);
  auto const next = client.request("OPTIONS", url());
  EXPECT_EQ(next.text.substr(0, 15), "RTSP/1.0 200 OK");
  EXPECT_EQ(next.header("CSeq"), "2");
  for (std::string const other : {"Content-Length: 0\r\n", "Content-Length : 0\r\n", "X: y\nContent-Length: 0\r\n"}) {
    RtspClient twofold(m_Host.port());
    EXPECT_EQ(twofold.request("OPTIONS", url()).status, 200);
    auto const refusal = twofold.request("OPTIONS", url(), length + other + "\r\n" + inner);
    EXPECT_EQ(refusal.status, 400) << other;
    EXPECT_EQ(refusal.header("CSeq"), "2") << "the number of another request";
    EXPECT_TRUE(twofold.isClosedWhileReading());
  }
}

TEST_F(Hostility, SessionsAreBoundedAndFailedOnesLeaveNothing) {
  RtspClient client(m_Host.port());
  auto const setUp = [&](std::string const& where) {
    client.forgetSession();
    return client.request("SETUP", where, "Transport: RTP/AVP/TCP;unicast\r\n").status;
  };
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(setUp(m_Host.url("nothing") + "/track1"), 404);
    EXPECT_EQ(setUp(url() + "/track9"), 404);
  }
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(setUp(url() + "/track1"), 200);
    EXPECT_EQ(client.request("PLAY", url()).status, 200);
  }
  EXPECT_EQ(setUp(url() + "/track1"), 453);
  expectAFrame();
}

// Reports of 30,000 senders, BYEs with reasons and datagrams that are not RTCP, from a viewer and from
// strangers: they take no memory and delay nobody.
TEST_F(Hostility, DatagramsFromAnybodyCostNothing) {
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.playOverUdp(url()) && viewer.receivesAFrame());
  std::vector<std::uint8_t> byes = {0x80, 201, 0, 1, 0, 0, 0, 1};
  while (byes.size() < 1400) {
    byes.insert(byes.end(), {0x81, 203, 0, 2, 0, 0, 0, 1, 3, 'b', 'y', 'e'});
  }
  auto const before = mallinfo2().uordblks;
  for (std::uint32_t ssrc = 0; ssrc < 30000; ++ssrc) {
    auto const byte = [&](int shift) { return static_cast<std::uint8_t>(ssrc >> shift); };
    viewer.sendRtcp({0x80, 201, 0, 1, 1, byte(16), byte(8), byte(0)});
    if (ssrc % 10 == 0) {
      viewer.sendFromElsewhere(byes, 1);
      viewer.sendFromElsewhere({1, 2, 3}, 1);
    }
  }
  EXPECT_TRUE(viewer.receivesAFrame());
  EXPECT_EQ(viewer.request("PLAY", url()).status, 200);
  EXPECT_TRUE(viewer.receivesAFrame());
  EXPECT_LT(static_cast<double>(mallinfo2().uordblks) - static_cast<double>(before), 1e6);
}

TEST_F(Hostility, UrgentDataCostsNoCpu) {
  m_Host.stopSubmitting();
  RtspClient client(m_Host.port());
  EXPECT_EQ(client.request("OPTIONS", url()).status, 200);
  client.sendUrgentByte();
  auto const cpu = std::clock();
  std::this_thread::sleep_for(std::chrono::seconds(1));  // a spinning loop takes all of it
  EXPECT_LT(std::clock() - cpu, CLOCKS_PER_SEC / 2);
  EXPECT_EQ(client.request("OPTIONS", url()).status, 200);
}

TEST_F(Hostility, NothingIsSaidOnTheHostsOutputs) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  {
    RtspClient client(m_Host.port());
    client.play(url());
    client.send(std::string("$\1\0\x08", 4) + "garbage!");  // as RTCP
    EXPECT_TRUE(client.receivesAFrame());
    client.request("NONSENSE", "rtsp://nowhere");
  }
  expectAFrame();
  m_Host.exit();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}
