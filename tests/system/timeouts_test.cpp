// Which sessions end because they are silent, idle or stalled, and which do not. Only the
// publisher's clock advances, so the test does not wait.
#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "system/rtspclient.h"
#include "system/shiftedpublisher.h"

namespace {

class Timeouts : public ::testing::TestWithParam<char const*> {
 protected:
  // Lets so many seconds pass; every 10 of them, the viewers do this. When it returns, the
  // event loop has processed everything.
  void pass(int seconds, std::function<void()> const& meanwhile) {
    for (int passed = 0; passed < seconds; passed += 10) {
      meanwhile();
      RtspClient(m_Publisher.port()).request("OPTIONS", url());  // answered after everything sent before
      m_Publisher.passSeconds(10);
      RtspClient(m_Publisher.port()).request("OPTIONS", url());
    }
  }

  std::string url() const { return m_Publisher.url(); }
  // Whether the server knows the session; asks from the address that created it.
  bool lives(std::string const& session, bool ipv6 = false) {
    RtspClient other(m_Publisher.port(), ipv6);
    return other.request("OPTIONS", url(), "Session: " + session + "\r\n").status == 200;
  }

  ShiftedPublisher m_Publisher{GetParam()};
};

}  // namespace

// A viewer's address can be forged: once its connection has closed, only a viewer that answers
// our reports lives on.
TEST_P(Timeouts, WithoutAConnectionAViewerLivesByAnsweringReports) {
  RtspClient viewers[] = {RtspClient(m_Publisher.port()), RtspClient(m_Publisher.port())};
  std::vector<std::uint8_t> answers[2];
  for (auto& viewer : viewers) {
    ASSERT_TRUE(viewer.playOverUdp(url()));
    viewer.closeConnection();
  }
  pass(130, [&] {
    viewers[0].sendReport();
    RtspClient::Packet packet;
    while ((packet = viewers[1].packet()).channel == 0 || viewers[1].hasPacket()) {
    }
    ASSERT_EQ(packet.channel, 1);
    auto const& sent = packet.bytes;
    std::vector<std::uint8_t> answer = {0x81, 201, 0, 7, 0, 0, 0, 9};
    answer.insert(answer.end(), sent.begin() + 4, sent.begin() + 8);  // the sender's SSRC
    answer.resize(24);
    answer.insert(answer.end(), sent.begin() + 10, sent.begin() + 14);  // the time of the report
    answer.resize(32);
    viewers[1].sendRtcp(answer);
  });
  EXPECT_FALSE(lives(viewers[0].session()));
  EXPECT_TRUE(lives(viewers[1].session()));
}

// Also over IPv6 if the stream was first watched over IPv4, after others have left, and if the reports
// come from another port from some time on, as behind NAT.
TEST_P(Timeouts, AViewerOverUdpLivesByItsReports) {
  RtspClient silent(m_Publisher.port());
  RtspClient viewers[] = {RtspClient(m_Publisher.port()), RtspClient(m_Publisher.port(), true),
                          RtspClient(m_Publisher.port())};
  ASSERT_TRUE(silent.playOverUdp(url()));
  for (auto& viewer : viewers) {
    ASSERT_TRUE(viewer.playOverUdp(url()));
  }
  pass(130, [&, round = 0]() mutable {
    ++round;
    for (auto& viewer : viewers) {
      if (&viewer == &viewers[1] && round > 3) {
        viewer.sendFromElsewhere({0x80, 201, 0, 1, 0, 0, 0, 9}, 1);
      } else {
        viewer.sendReport();
      }
    }
  });
  for (auto& viewer : viewers) {
    bool const ipv6 = &viewer == &viewers[1];
    EXPECT_TRUE(lives(viewer.session(), ipv6));
    EXPECT_FALSE(lives(viewer.session(), !ipv6)) << "another host used it";
    EXPECT_TRUE(viewer.receivesAFrame());
  }
  EXPECT_FALSE(lives(silent.session()));
}

TEST_P(Timeouts, TwoSessionsOfAConnectionLiveByTheirOwnChannels) {
  RtspClient viewer(m_Publisher.port());
  std::vector<std::string> sessions;
  for (std::string const channels : {"0-1", "2-3", "4-5"}) {
    viewer.forgetSession();
    ASSERT_EQ(
        viewer.request("SETUP", url() + "/track1", "Transport: RTP/AVP/TCP;interleaved=" + channels + "\r\n").status,
        200);
    ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
    ASSERT_EQ(viewer.request("PAUSE", url()).status, 200);
    sessions.push_back(viewer.session());
  }
  pass(70, [&] {
    viewer.sendReport(1);
    viewer.sendReport(5);
  });
  EXPECT_TRUE(lives(sessions[0]));
  EXPECT_FALSE(lives(sessions[1]));
  EXPECT_TRUE(lives(sessions[2]));
}

// The end of the old session does not affect the session that has its ports now.
TEST_P(Timeouts, PortsThatAreSetUpAgainBelongToTheNewSession) {
  RtspClient viewer(m_Publisher.port());
  ASSERT_TRUE(viewer.playOverUdp(url()));
  auto const old = viewer.session();
  viewer.forgetSession();
  ASSERT_TRUE(viewer.playOverUdp(url()));
  pass(130, [&] { viewer.sendReport(); });
  EXPECT_FALSE(lives(old));
  EXPECT_TRUE(lives(viewer.session()));
  EXPECT_TRUE(viewer.receivesAFrame());
}

// A viewer that leaves without TEARDOWN is ended before its 65 seconds are over.
TEST_P(Timeouts, AViewerThatIsGoneFromItsPortIsEnded) {
  std::string gone;
  RtspClient silent(m_Publisher.port());
  ASSERT_TRUE(silent.playOverUdp(url()));
  {
    RtspClient viewer(m_Publisher.port());
    ASSERT_TRUE(viewer.playOverUdp(url()) && viewer.receivesAFrame());
    gone = viewer.session();
  }
  for (int second = 0; second < 8; ++second) {
    RtspClient(m_Publisher.port()).request("OPTIONS", url());
    m_Publisher.passSeconds(1);
    RtspClient(m_Publisher.port()).request("OPTIONS", url());
  }
  EXPECT_FALSE(lives(gone));
  EXPECT_TRUE(lives(silent.session()));
}

TEST_P(Timeouts, APausedViewerIsNotStalled) {
  RtspClient viewer(m_Publisher.port(), false, 4096);
  ASSERT_TRUE(viewer.play(url()) && viewer.receivesAFrame());
  ASSERT_EQ(viewer.request("PAUSE", url()).status, 200);
  pass(120, [&] { viewer.sendReport(); });
  ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
  EXPECT_TRUE(viewer.receivesAFrame());
}

TEST_P(Timeouts, IdleAndStalledConnectionsAreClosed) {
  RtspClient idle(m_Publisher.port());
  RtspClient stalled(m_Publisher.port(), false, 4096);
  RtspClient setUp(m_Publisher.port());
  ASSERT_EQ(idle.request("OPTIONS", url()).status, 200);
  ASSERT_EQ(setUp.request("SETUP", url() + "/track1", RtspClient::overTcp).status, 200);
  RtspClient paused(m_Publisher.port());
  ASSERT_TRUE(paused.play(url()));
  ASSERT_EQ(paused.request("PAUSE", url()).status, 200);
  ASSERT_TRUE(stalled.play(url()));
  // Until the stalled viewer's path is full, by the frames that another viewer gets.
  RtspClient witness(m_Publisher.port());
  ASSERT_TRUE(witness.play(url()));
  for (int i = 0; i < 30; ++i) {
    ASSERT_TRUE(witness.receivesAFrame());
  }
  pass(40, [&] { EXPECT_TRUE(witness.receivesAFrame()); });
  EXPECT_TRUE(idle.isClosedWhileReading());
  EXPECT_TRUE(stalled.isClosedWhileReading());
  EXPECT_TRUE(lives(paused.session()));
  EXPECT_FALSE(lives(setUp.session())) << "it never played";
}

INSTANTIATE_TEST_SUITE_P(Codecs, Timeouts, ::testing::Values("jpeg", "h264"));
