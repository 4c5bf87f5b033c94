// The life of a viewer: DESCRIBE, PLAY, PAUSE, and the end of the stream.
#include <gtest/gtest.h>

#include <set>

#include "system/host.h"
#include "system/rtspclient.h"

namespace {

class Viewing : public ::testing::TestWithParam<int> {
 protected:
  Viewing() {
    m_Host.serve();
    m_Record = m_Host.publish("stream", GetParam()).record;
    m_Host.startSubmitting();
  }

  std::string url(std::string const& address = "127.0.0.1") const { return m_Host.url("stream", address); }

  // Frames arrive, and H.264 begins with a key frame.
  void expectFrames(RtspClient& viewer) {
    if (GetParam() == KV_CODEC_H264) {
      EXPECT_EQ(viewer.nextNalType(), 7);
    }
    EXPECT_TRUE(viewer.receivesAFrame());
  }

  // Skips packets that have arrived. Returns false if an RTP packet arrives after that.
  bool isQuiet(RtspClient& viewer, RtspClient& witness) {
    while (viewer.hasPacket()) {
      viewer.packet();
    }
    for (int i = 0; i < 10; ++i) {
      EXPECT_TRUE(witness.receivesAFrame());
    }
    while (viewer.hasPacket()) {
      if (viewer.packet().channel == 0) {
        return false;
      }
    }
    return true;
  }

  Host m_Host;
  kv_frame_record m_Record{};
};

}  // namespace

TEST_P(Viewing, PauseStopsOneViewerAndPlayBringsItBack) {
  for (bool const tcp : {true, false}) {
    RtspClient witness(m_Host.port());
    RtspClient viewer(m_Host.port());
    ASSERT_TRUE(witness.playOverUdp(url()));
    ASSERT_TRUE(tcp ? viewer.play(url()) : viewer.playOverUdp(url()));
    expectFrames(viewer);
    for (int round = 0; round < 2; ++round) {
      ASSERT_EQ(viewer.request("PAUSE", url()).status, 200);
      ASSERT_EQ(viewer.request("PAUSE", url()).status, 200);
      EXPECT_TRUE(isQuiet(viewer, witness)) << "tcp " << tcp;
      ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
      expectFrames(viewer);
    }
    EXPECT_TRUE(witness.receivesAFrame());
    // The only viewer may pause too.
    ASSERT_EQ(witness.request("TEARDOWN", url()).status, 200);
    ASSERT_EQ(viewer.request("PAUSE", url()).status, 200);
    ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
    expectFrames(viewer);
  }
}

// Some clients take anything that precedes it for the response.
TEST_P(Viewing, TheResponseToPlayIsTheFirstThingOnTheConnection) {
  RtspClient alone(m_Host.port());
  ASSERT_TRUE(alone.play(url()));
  expectFrames(alone);
  for (int i = 0; i < 10; ++i) {
    RtspClient another(m_Host.port());
    ASSERT_TRUE(another.play(url(), i % 2 == 0));
    EXPECT_EQ(another.packet().channel, 1) << "a sender report has the time of the first frame";
    EXPECT_EQ(another.packet().channel, 0);
    EXPECT_EQ(another.dropped(), 0);
  }
  EXPECT_EQ(alone.dropped(), 0);
}

TEST_P(Viewing, ARemovedSessionSendsByeAndClosesItsConnections) {
  auto other = sessionRecord("other");
  ASSERT_EQ(m_Host.call(KV_CREATE_SESSION, other), KV_OK);
  RtspClient tcp(m_Host.port());
  RtspClient udp(m_Host.port());
  RtspClient udpOverIpv6(m_Host.port(), true);
  ASSERT_TRUE(tcp.play(url()) && udp.playOverUdp(url()) && udpOverIpv6.playOverUdp(url("[::1]")));
  EXPECT_TRUE(tcp.receivesAFrame() && udp.receivesAFrame() && udpOverIpv6.receivesAFrame());
  m_Host.stopSubmitting();
  ASSERT_EQ(m_Host.call(KV_REMOVE_SESSION, m_Record.handle, 8), KV_OK);
  for (RtspClient* const viewer : {&tcp, &udp, &udpOverIpv6}) {
    EXPECT_TRUE(viewer->receivesBye());
    EXPECT_TRUE(viewer->isClosedWhileReading());
  }
}

TEST_P(Viewing, ExitSendsBye) {
  RtspClient tcp(m_Host.port());
  RtspClient udp(m_Host.port());
  ASSERT_TRUE(tcp.play(url()) && udp.playOverUdp(url()));
  EXPECT_TRUE(tcp.receivesAFrame() && udp.receivesAFrame());
  m_Host.exit();
  EXPECT_TRUE(tcp.receivesBye());
  EXPECT_TRUE(udp.receivesBye());
}

// DESCRIBE takes no frame from the viewers, and returns an address of the client's
// own family.
TEST_P(Viewing, ADescriptionIsForWhoAsksAndDisturbsNobody) {
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url(), false));
  expectFrames(viewer);
  int sequence = -1;
  for (bool const ipv6 : {false, true, false}) {
    RtspClient asking(m_Host.port(), ipv6);
    auto const description = asking.request("DESCRIBE", url(ipv6 ? "[::1]" : "127.0.0.1")).text;
    EXPECT_NE(description.find(ipv6 ? "c=IN IP6 ::\r\n" : "c=IN IP4 0.0.0.0\r\n"), std::string::npos) << description;
    EXPECT_NE(description.find(ipv6 ? " IN IP6 " : " IN IP4 "), std::string::npos) << description;
    for (int packets = 0; packets < 20;) {
      auto const packet = viewer.packet();
      ASSERT_GE(packet.channel, 0);
      if (packet.channel == 0) {
        int const next = packet.bytes[2] * 256 + packet.bytes[3];
        EXPECT_TRUE(sequence < 0 || next == (sequence + 1) % 65536);
        sequence = next;
        ++packets;
      }
    }
  }
}

TEST_P(Viewing, TwoSessionsShareAConnectionOnChannelsOfTheirOwn) {
  RtspClient viewer(m_Host.port());
  for (std::string const channels : {"interleaved=4-5", "unicast"}) {  // the second lets the server choose
    viewer.forgetSession();
    auto const response = viewer.request("SETUP", url() + "/track1", "Transport: RTP/AVP/TCP;" + channels + "\r\n");
    ASSERT_EQ(response.status, 200);
    EXPECT_NE(response.header("Transport").find(channels == "unicast" ? "interleaved=0-1" : channels),
              std::string::npos);
    ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
  }
  std::set<int> channels;
  while (channels.count(0) + channels.count(4) < 2) {
    auto const packet = viewer.packet();
    ASSERT_GE(packet.channel, 0);
    channels.insert(packet.channel);
  }
  viewer.forgetSession();
  EXPECT_EQ(viewer.request("SETUP", url() + "/track1", "Transport: RTP/AVP/TCP;interleaved=5-6\r\n").status, 461)
      << "another session's channel";
}

INSTANTIATE_TEST_SUITE_P(Codecs, Viewing, ::testing::Values(KV_CODEC_MJPEG, KV_CODEC_H264));
