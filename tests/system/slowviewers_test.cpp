// Viewers that stall or vanish in mid-frame, and the other viewers.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <random>

#include "system/host.h"
#include "system/rtpchecker.h"
#include "system/rtspclient.h"

namespace {

// For how many frames a viewer stalls. A resuming viewer must not depend on the regular
// key frame, which H.264 has every 50 frames.
constexpr int standstill = 90;

class SlowViewers : public ::testing::TestWithParam<int> {
 protected:
  SlowViewers() {
    m_Host.serve();
    // Noise on the test pattern makes JPEG images large. For H.264, faint moving blocks do: the
    // encoder skips frames of noise, needs few bytes for still ones, and makes key frames if much
    // changes.
    bool const jpeg = GetParam() == KV_CODEC_MJPEG;
    auto& frame = m_Host.publish("stream", GetParam(), 640, 480, 4000000).frame;
    frame.resize(jpeg ? frame.size() : 2 * frame.size());
    constexpr std::size_t row = 640 * 3;
    std::minstd_rand random(1);
    for (std::size_t at = 0; at < frame.size(); ++at) {
      auto const noise = static_cast<int>(random() >> 8) & 0xFF;
      if (jpeg) {
        frame[at] = static_cast<std::uint8_t>(std::clamp(frame[at] + noise % 32 - 16, 0, 255));
      } else if (at / row % 16 != 0) {
        frame[at] = frame[at - row];
      } else {
        frame[at] = at % 48 != 0 ? frame[at - 1] : static_cast<std::uint8_t>(112 + noise / 8);
      }
    }
    m_Host.startSubmitting();
  }

  std::string url() const { return m_Host.url("stream"); }

  // Reads frames and checks them against the RFCs, except for gaps if they are allowed.
  // Returns the number of gaps.
  int expectWholeFrames(RtspClient& viewer, bool gapsAllowed, std::function<bool(RtpChecker const&)> const& enough) {
    RtpChecker checker(GetParam());
    while (!enough(checker)) {
      auto const packet = viewer.packet();
      if (packet.channel < 0) {
        ADD_FAILURE() << "nothing comes any more";
        return 0;
      }
      if (packet.channel == 0) {
        checker.rtp(packet.bytes, 4e9);
      }
    }
    m_Timestamp = checker.timestamp();
    for (auto const& complaint : checker.complaints()) {
      EXPECT_TRUE(gapsAllowed && complaint.find("gap in the sequence") != std::string::npos) << complaint;
    }
    return static_cast<int>(checker.complaints().size());
  }

  int expectWholeFrames(RtspClient& viewer, int count, bool gapsAllowed) {
    return expectWholeFrames(viewer, gapsAllowed, [=](auto const& checker) { return checker.frames() >= count; });
  }

  Host m_Host;
  std::uint32_t m_Timestamp = 0;  // of the last frame read
};

}  // namespace

TEST_P(SlowViewers, OneThatStallsHoldsUpNobodyAndComesBackToWholeFrames) {
  RtspClient witness(m_Host.port());
  ASSERT_TRUE(witness.play(url()));
  expectWholeFrames(witness, 10, false);  // the first frames are small enough for a receive buffer
  m_Host.stopSubmitting();                // so that no packet is read along with PLAY's response
  RtspClient stalled(m_Host.port(), false, 4096);
  ASSERT_TRUE(stalled.play(url()));
  m_Host.startSubmitting();
  expectWholeFrames(witness, standstill, false);
  std::uint32_t const newest = m_Timestamp;
  int older = 0;
  int const gaps = expectWholeFrames(stalled, true, [&](RtpChecker const& checker) {
    older = static_cast<std::int32_t>(checker.timestamp() - newest) < 0 ? checker.frames() : older;
    return checker.frames() >= older + 40;
  });
  EXPECT_GT(gaps, 0) << "it was never behind";
  EXPECT_LE(older, 1) << "others came first than the end of the one that was begun";
  EXPECT_EQ(stalled.request("GET_PARAMETER", url()).status, 200);
  expectWholeFrames(stalled, 5, true);
  EXPECT_EQ(m_Host.failedSubmits(), 0);
}

// New connections get the descriptor numbers of connections that were just closed.
TEST_P(SlowViewers, NothingOfOneConnectionReachesTheNext) {
  constexpr int together = 20;
  int const rounds = GetParam() == KV_CODEC_MJPEG ? 100 : 5;  // viewers of H.264 wait for a key frame
  RtspClient witness(m_Host.port());
  ASSERT_TRUE(witness.play(url()));
  for (int round = 0; round < rounds; ++round) {
    {
      std::deque<RtspClient> leaving;
      for (int i = 0; i < together; ++i) {
        ASSERT_TRUE(leaving.emplace_back(m_Host.port(), false, 4096).play(url()));
      }
      for (auto& viewer : leaving) {
        ASSERT_GE(viewer.packet().channel, 0);
      }
    }
    std::deque<RtspClient> next;
    for (int i = 0; i < together; ++i) {
      auto const response = next.emplace_back(m_Host.port()).request("OPTIONS", url());
      ASSERT_EQ(response.text.substr(0, 15), "RTSP/1.0 200 OK") << "round " << round;
    }
    for (auto const& client : next) {
      EXPECT_EQ(client.dropped(), 0) << "packets of another viewer came in round " << round;
    }
    expectWholeFrames(witness, 1, true);
  }
}

// Its responses find no room, and its requests must not pile up.
TEST_P(SlowViewers, OneThatSendsWithoutReadingIsDisconnected) {
  RtspClient flooding(m_Host.port(), false, 4096);
  RtspClient witness(m_Host.port());
  ASSERT_TRUE(flooding.play(url()) && witness.play(url()));
  EXPECT_TRUE(flooding.isClosedWhileSending("OPTIONS " + url() + " RTSP/1.0\r\nCSeq: 1\r\n\r\n"));
  expectWholeFrames(witness, 3, true);
}

INSTANTIATE_TEST_SUITE_P(Codecs, SlowViewers, ::testing::Values(KV_CODEC_MJPEG, KV_CODEC_H264));
