// The life of a viewer: description, PLAY, PAUSE, and the stream's end.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <numeric>
#include <random>
#include <set>
#include <thread>
#include <tuple>

#include "system/host.h"
#include "system/player.h"
#include "system/rtspclient.h"
#include "system/testpattern.h"

namespace {

class Viewing : public ::testing::TestWithParam<int> {
 protected:
  Viewing() {
    m_Host.serve();
    m_Record = m_Host.publish("stream", KV_BGR24, GetParam()).record;
    m_Host.startSubmitting();
  }

  std::string url(std::string const& address = "127.0.0.1") const { return m_Host.url("stream", address); }

  // Frames come, and for H.264 begin with one that needs no other.
  void expectFrames(RtspClient& viewer) {
    if (GetParam() == KV_CODEC_H264) {
      EXPECT_EQ(viewer.nextNalType(), 7);
    }
    EXPECT_TRUE(viewer.receivesAFrame());
  }

  // Skips what is on the way; false when an RTP packet comes after that.
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
  }
}

// Some clients take what comes before it for the response.
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

// All of a stream's viewers: nothing is encoded then, and all resume afterwards.
TEST_P(Viewing, TheOnlyViewerMayPauseToo) {
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  for (int round = 0; round < 3; ++round) {
    expectFrames(viewer);
    ASSERT_EQ(viewer.request("PAUSE", url()).status, 200);
    ASSERT_EQ(viewer.request("PLAY", url()).status, 200);
  }
  expectFrames(viewer);
}

TEST_P(Viewing, ARemovedSessionSaysGoodbyeAndEndsItsConnections) {
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
    EXPECT_TRUE(viewer->receivesGoodbye());
    EXPECT_TRUE(viewer->isClosedWhileReading());
  }
}

TEST_P(Viewing, ExitSaysGoodbye) {
  RtspClient tcp(m_Host.port());
  RtspClient udp(m_Host.port());
  ASSERT_TRUE(tcp.play(url()) && udp.playOverUdp(url()));
  EXPECT_TRUE(tcp.receivesAFrame() && udp.receivesAFrame());
  m_Host.exit();
  EXPECT_TRUE(tcp.receivesGoodbye());
  EXPECT_TRUE(udp.receivesGoodbye());
}

// Whoever describes takes no frame from those who watch, and learns the address
// of its own family.
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
  for (std::string const channels : {"interleaved=4-5", "unicast"}) {  // the second leaves the choice to the server
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

// A stream whose host submits a picture every two seconds: frames that leave at once, and
// some that have to be paced.
class ViewingSlowHost : public ::testing::TestWithParam<std::tuple<int, int>> {
 protected:
  ViewingSlowHost() {
    auto const [codec, size] = GetParam();
    // A receive buffer takes two frames whole, whatever the test does meanwhile.
    std::ofstream(m_Folder.file("policy")) << "[delivery]\npace_mbit = 20\n";
    m_Host.serve();
    m_Record = m_Host.publish("stream", KV_BGR24, codec, size, size, 40000000).record;
    m_Noise.resize(frameSize(size));
    std::generate(m_Noise.begin(), m_Noise.end(), std::minstd_rand(1));
    m_Record.frame = m_Noise.data();
  }

  static std::size_t frameSize(int size) { return 3 * static_cast<std::size_t>(size) * static_cast<std::size_t>(size); }
  std::string url() const { return m_Host.url("stream"); }
  void submit() { ASSERT_EQ(m_Host.call(KV_SUBMIT_FRAME, m_Record), KV_OK); }
  void leave(RtspClient& viewer) { EXPECT_EQ(viewer.request("TEARDOWN", url()).status, 200); }

  void pass(RtspClient& viewer, std::chrono::milliseconds time) {
    auto const begin = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - begin < time) {
      EXPECT_EQ(viewer.request("GET_PARAMETER", url()).status, 200);
    }
  }

  // The response to PLAY.
  std::string join(RtspClient& viewer, bool tcp) {
    auto const transport =
        tcp ? viewer.request("SETUP", url() + "/track1", RtspClient::overTcp) : viewer.setUpOverUdp(url());
    EXPECT_EQ(transport.status, 200);
    return viewer.request("PLAY", url()).header("RTP-Info") + ";";
  }

  // Two pictures; viewers that come between them have the second made a key frame.
  void submitTwo(RtspClient& first, RtspClient& second) {
    join(first, true);
    submit();
    EXPECT_GT(frameOf(first).packets, 0U);
    join(second, true);
    pass(second, std::chrono::seconds(2));
    submit();
  }

  struct Frame {
    std::uint32_t first = 0;  // packet
    std::uint32_t time = 0;
    std::uint32_t packets = 0;
    std::uint16_t behind() const { return static_cast<std::uint16_t>(first + packets); }
  };

  // The frame that comes next; without packets if not all of its own come.
  static Frame frameOf(RtspClient& viewer) {
    Frame frame;
    for (auto packet = viewer.packet(); packet.channel != -1; packet = viewer.packet()) {
      if (packet.channel != 0) {
        continue;
      }
      auto const number = [&](std::ptrdiff_t at, std::ptrdiff_t size) {
        return std::accumulate(packet.bytes.begin() + at, packet.bytes.begin() + at + size, std::uint32_t{0},
                               [](std::uint32_t value, std::uint8_t byte) { return value << 8 | byte; });
      };
      if (frame.packets == 0) {
        frame = {number(2, 2), number(4, 4)};
      }
      if (number(2, 2) != frame.behind() || number(4, 4) != frame.time) {
        return {};
      }
      ++frame.packets;
      if ((packet.bytes[1] & 0x80) != 0) {
        return frame;
      }
    }
    return {};
  }

  // Whether it comes, of the number and the time that were announced.
  static bool receives(RtspClient& viewer, std::string const& announced) {
    auto const frame = frameOf(viewer);
    return frame.packets > 0 && announced.find("seq=" + std::to_string(frame.first) + ";") != std::string::npos &&
           announced.find("rtptime=" + std::to_string(frame.time) + ";") != std::string::npos;
  }

  TemporaryFolder m_Folder;
  Variable m_Config{"KAVO_STREAM_CONFIG", m_Folder.file("policy")};
  Host m_Host;
  kv_frame_record m_Record{};
  std::vector<std::uint8_t> m_Noise;
};

TEST_P(ViewingSlowHost, WhoeverJoinsGetsTheNewestPicture) {
  RtspClient first(m_Host.port());
  RtspClient second(m_Host.port());
  submitTwo(first, second);
  // It is the newest for as long as the rest takes.
  for (bool const tcp : {true, false}) {
    RtspClient later(m_Host.port());
    EXPECT_TRUE(receives(later, join(later, tcp))) << "tcp " << tcp;
    leave(later);
  }
  leave(first);
  leave(second);
  RtspClient afterAll(m_Host.port());
  EXPECT_TRUE(receives(afterAll, join(afterAll, false)));
  pass(afterAll, std::chrono::milliseconds(500));
  leave(afterAll);
  submit();
  RtspClient last(m_Host.port());
  auto const announced = join(last, false);
  submit();
  EXPECT_FALSE(receives(last, announced)) << "a picture that others have followed";
}

// A large one may still be on its way to whoever has joined.
TEST_P(ViewingSlowHost, TheNextPictureFollowsTheNewest) {
  RtspClient first(m_Host.port());
  RtspClient second(m_Host.port());
  submitTwo(first, second);
  RtspClient later(m_Host.port());
  join(later, false);
  submit();
  auto const newest = frameOf(later);
  auto const next = frameOf(later);
  EXPECT_GT(std::min(newest.packets, next.packets), 0U);
  EXPECT_EQ(next.first, newest.behind());
}

// Pictures that leave at once.
class ViewingSmallPictures : public ViewingSlowHost {};

// Also where the next one is submitted while the response is on its way.
TEST_P(ViewingSmallPictures, ThePictureThatPlayAnnouncesComesFirst) {
  RtspClient first(m_Host.port());
  RtspClient second(m_Host.port());
  submitTwo(first, second);
  RtspClient later(m_Host.port());
  ASSERT_EQ(later.setUpOverUdp(url()).status, 200);
  RtspClient other(m_Host.port());  // keeps the loop busy until both have come
  std::string requests;
  for (int n = 0; n < 500; ++n) {
    requests += "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  }
  other.send(requests);
  std::thread host([this] { submit(); });
  auto const announced = later.request("PLAY", url()).header("RTP-Info") + ";";
  host.join();
  submit();  // on a busy machine the other may have been old when PLAY came
  EXPECT_NE(announced.find("seq=" + std::to_string(frameOf(later).first) + ";"), std::string::npos) << announced;
}

class ViewingDeltaFrames : public ViewingSlowHost {};

TEST_P(ViewingDeltaFrames, WhoeverWaitsForAKeyFrameIsToldNoFirstPacket) {
  RtspClient first(m_Host.port());
  RtspClient later(m_Host.port());
  EXPECT_NE(join(first, false).find(";seq="), std::string::npos);
  for (int frames = 0; frames < 2; ++frames) {
    submit();
    EXPECT_GT(frameOf(first).packets, 0U);
  }
  pass(first, std::chrono::milliseconds(500));  // a join has no key frame made sooner
  auto const announced = join(later, false);
  EXPECT_EQ(announced.substr(announced.find(';'), 9), ";rtptime=") << announced;
  submit();
  EXPECT_GT(frameOf(later).packets, 0U);
}

INSTANTIATE_TEST_SUITE_P(H264, ViewingDeltaFrames, ::testing::Values(std::tuple(KV_CODEC_H264, 64)));
INSTANTIATE_TEST_SUITE_P(Codecs, ViewingSlowHost,
                         ::testing::Values(std::tuple(KV_CODEC_MJPEG, 64), std::tuple(KV_CODEC_MJPEG, 160),
                                           std::tuple(KV_CODEC_H264, 64)));
INSTANTIATE_TEST_SUITE_P(Jpeg, ViewingSmallPictures, ::testing::Values(std::tuple(KV_CODEC_MJPEG, 64)));
INSTANTIATE_TEST_SUITE_P(Codecs, Viewing, ::testing::Values(KV_CODEC_MJPEG, KV_CODEC_H264));
