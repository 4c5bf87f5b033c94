// Clients that do wrong, by accident or on purpose, and the others who watch.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>

#include "system/host.h"
#include "system/player.h"
#include "system/rtspclient.h"

namespace {

class Hostility : public ::testing::Test {
 protected:
  Hostility() {
    m_Host.serve();
    m_Host.publish("stream");
    m_Host.startSubmitting();
  }

  std::string url() const { return m_Host.url("stream"); }

  void expectAPicture() {
    Player player(Player::Client::Ffmpeg, Player::Transport::Tcp, url(), 2);
    auto const pictures = player.pictures(320, 240);
    ASSERT_EQ(pictures.size(), 2U) << player.messages();
    EXPECT_EQ(differences(pictures[0]), "");
  }

  Host m_Host;
};

}  // namespace

TEST_F(Hostility, ASetupWithoutADescribeSilencesNobody) {
  RtspClient first(m_Host.port());
  ASSERT_TRUE(first.play(url(), false));
  EXPECT_TRUE(first.receivesAPicture());
  expectAPicture();
  EXPECT_TRUE(first.receivesAPicture());
}

TEST_F(Hostility, TransportsThatAreNotRtpAreRefused) {
  for (std::string const transport :
       {"RAW/RAW/UDP;unicast;client_port=5000", "MP2T/H2221/UDP;unicast;client_port=5000", "RTP/AVP;unicast",
        "RTP/AVP;unicast;client_port=0-1", "RTP/AVP;unicast;client_port=0", "RTP/AVP/UDP;unicast;client_port=65535",
        "RTP/AVP;multicast"}) {
    RtspClient client(m_Host.port());
    auto const response = client.request("SETUP", url() + "/track1", "Transport: " + transport + "\r\n");
    EXPECT_EQ(response.text.substr(0, response.text.find("\r\n")), "RTSP/1.0 461 Unsupported Transport") << transport;
  }
  RtspClient without(m_Host.port());
  EXPECT_EQ(without.request("SETUP", url() + "/track1").status, 461);
  expectAPicture();
}

TEST_F(Hostility, AViewerWhoAsksTwiceGetsEveryPacketOnce) {
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.playOverUdp(url()));
  ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
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

TEST_F(Hostility, BothWordsForUdpAreServed) {
  for (std::string const profile : {"RTP/AVP", "RTP/AVP/UDP"}) {
    RtspClient client(m_Host.port());
    auto const response =
        client.request("SETUP", url() + "/track1", "Transport: " + profile + ";unicast;client_port=40000-40001\r\n");
    EXPECT_EQ(response.status, 200) << profile;
    EXPECT_NE(response.header("Transport").find("server_port="), std::string::npos);
  }
}

TEST_F(Hostility, AViewerMayVanishAtAnyStep) {
  std::function<void(RtspClient&)> const steps[] = {
      [](RtspClient&) {},
      [&](RtspClient& c) { c.request("DESCRIBE", url()); },
      [&](RtspClient& c) { c.request("SETUP", url() + "/track1", RtspClient::overTcp); },
      [&](RtspClient& c) { c.play(url()); },
      [&](RtspClient& c) { c.send("SETUP rtsp://half a requ"); },
      [&](RtspClient& c) { c.send(std::string("$\0\xff\xff", 4)); },
      [&](RtspClient& c) { c.request("PLAY", url()); },
      [&](RtspClient& c) { c.request("TEARDOWN", url()); },
  };
  RtspClient witness(m_Host.port());
  ASSERT_TRUE(witness.play(url()));
  for (auto const& step : steps) {
    {
      RtspClient client(m_Host.port());
      step(client);
    }
    EXPECT_TRUE(witness.receivesAPicture());
  }
  expectAPicture();
}

TEST_F(Hostility, NothingIsSaidOnTheHostsOutputs) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  {
    RtspClient client(m_Host.port());
    client.play(url());
    client.send(std::string("$\1\0\x08", 4) + "garbage!");  // as RTCP
    EXPECT_TRUE(client.receivesAPicture());
    client.request("NONSENSE", "rtsp://nowhere");
  }
  expectAPicture();
  m_Host.exit();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}
