// Viewers that join an H.264 stream begin with a complete frame, at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "system/host.h"
#include "system/rtspclient.h"

namespace {

constexpr int sps = 7;

class Joining : public ::testing::Test {
 protected:
  Joining() { m_Host.serveLive("stream", KV_CODEC_H264); }

  std::string url() const { return m_Host.url("stream"); }

  void waitForFrames(int count) {
    int const end = m_Host.submitted() + count;
    while (m_Host.submitted() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  Host m_Host;
};

}  // namespace

// There is a regular key frame every 50 frames.
TEST_F(Joining, ALaterViewerDoesNotWaitForTheRegularKeyFrame) {
  // RTP-Info names the first packet if it is known.
  auto const join = [&](RtspClient& viewer) {
    EXPECT_EQ(viewer.setUpOverUdp(url()).status, 200);
    return viewer.request("PLAY", url()).header("RTP-Info");
  };
  RtspClient first(m_Host.port());
  EXPECT_NE(join(first).find(";seq="), std::string::npos);
  EXPECT_EQ(first.nextNalType(), sps);
  waitForFrames(18);
  RtspClient second(m_Host.port());
  auto const announced = join(second);
  EXPECT_EQ(announced.substr(announced.find(';'), 9), ";rtptime=") << announced;
  int const asked = m_Host.submitted();
  EXPECT_EQ(second.nextNalType(), sps);
  EXPECT_LT(m_Host.submitted() - asked, 25);
}

// It asks by a report of lost packets, by RFC 4585's picture loss indication, and
// by RFC 5104's full intra request.
TEST_F(Joining, AViewerThatLosesPacketsGetsAKeyFrame) {
  using Bytes = std::vector<std::uint8_t>;
  // The bytes before the sender's SSRC, and after it.
  std::pair<Bytes, Bytes> const requests[] = {
      {{0x81, 201, 0, 7, 0, 0, 0, 9}, {12, 0, 0, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {{0x80, 201, 0, 1, 0, 0, 0, 9, 0x81, 206, 0, 2, 0, 0, 0, 9}, {}},
      {{0x80, 201, 0, 1, 0, 0, 0, 9, 0x84, 206, 0, 4, 0, 0, 0, 9, 0, 0, 0, 0}, {1, 0, 0, 0}},
  };
  for (auto const& [before, behind] : requests) {
    RtspClient viewer(m_Host.port());
    ASSERT_TRUE(viewer.playOverUdp(url()));
    auto packet = viewer.packet();
    while (packet.channel != 0) {
      packet = viewer.packet();
    }
    waitForFrames(18);
    int const asked = m_Host.submitted();
    auto const at = packet.bytes.begin();
    Bytes request = before;
    request.insert(request.end(), at + 8, at + 12);
    request.insert(request.end(), behind.begin(), behind.end());
    if (!behind.empty() && behind[0] == 12) {
      std::copy(at + 2, at + 4, request.begin() + 18);  // the highest sequence number received
    }
    viewer.sendRtcp(request);
    while (viewer.nextNalType() != sps) {
      ASSERT_LT(m_Host.submitted() - asked, 25);
    }
    EXPECT_EQ(viewer.request("TEARDOWN", url()).status, 200);
  }
}
