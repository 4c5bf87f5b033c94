#include "delivery/viewers.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "delivery/udpfanout.h"
#include "delivery/udpreceiver.h"
#include "delivery/udptransport.h"
#include "eventloop/looptest.h"

using namespace kavo::impl;
using namespace std::chrono_literals;

namespace {

// One letter for each frame that has arrived, lower case if it is incomplete.
std::string seen(Player& player) {
  std::string letters;
  for (auto const& [time, isComplete] : player.read()) {
    letters += static_cast<char>((isComplete ? 'A' : 'a') + time);
  }
  return letters;
}

// The same, followed by the number of reports that have arrived since the last call.
std::string framesAndReports(Player& player) { return seen(player) + std::to_string(player.rtcp.packets().size()); }

class ViewersTest : public LoopTest, public Stream {
 protected:
  void wantKeyFrame(bool wanted) override {
    m_KeyFramesWanted += wanted ? 1 : 0;
    m_IsKeyFrameWanted = wanted;
  }
  bool hasKeyFramesOnly() const override { return false; }
  Viewer::Clock::duration freshness() const override { return 1h; }
  SenderInfo senderInfo() override {
    return {.ssrc = 3, .ntpTime = ++m_Ntp << 32, .rtpTime = 5, .packets = 0, .octets = 0};
  }

  Viewer& add(Player const& receiver) {
    Viewer* const viewer = m_Viewers->addUdp(receiver.rtp.address, receiver.rtp.port(), receiver.rtcp.port());
    EXPECT_NE(viewer, nullptr);
    return *viewer;
  }
  Viewer& join(Player const& receiver) {
    Viewer& viewer = add(receiver);
    m_Viewers->play(viewer);
    m_Viewers->begin(viewer);
    return viewer;
  }

  // Sends the next frame; the first one is A.
  void send(std::size_t bytes, bool isKeyFrame) {
    auto const frame = m_Pool.take();
    auto const room = frame->reserve(bytes).first(bytes);
    frame->isKeyFrame = isKeyFrame;
    frame->packets.begin({.payloadType = 96, .sequence = m_Sequence, .timestamp = m_Frames++, .ssrc = 3});
    for (std::size_t at = 0; at < bytes; at += 1000) {
      frame->packets.add({}, room.subspan(at, std::min<std::size_t>(1000, bytes - at)), at + 1000 >= bytes);
    }
    frame->packets.end();
    m_Sequence = static_cast<std::uint16_t>(m_Sequence + frame->packets.count());
    m_Viewers->send(frame);
  }

  // A large frame is sent in bursts over a tenth of a second at 8 Mbit/s; a small frame at once.
  static constexpr std::size_t large = 100000;
  static constexpr std::size_t small = 5000;

  StreamObserver m_Observer;
  FramePool m_Pool;
  std::uint16_t m_Sequence = 65530;
  std::uint32_t m_Frames = 0;
  std::uint64_t m_Ntp = 0;
  int m_KeyFramesWanted = 0;
  bool m_IsKeyFrameWanted = false;
  std::unique_ptr<Viewers> m_Viewers = std::make_unique<Viewers>(
      *m_Scheduler, DeliveryContext{.policy = {.address = "", .paceMbit = 8}}, *this, m_Observer);
};

}  // namespace

TEST_F(ViewersTest, ABusyPathDoesNotDelayOthers) {
  Player busy(1);
  Player free(2);
  join(busy);
  send(large, false);
  send(large, true);
  EXPECT_EQ(seen(busy), "b");
  Viewer& late = add(free);
  m_Viewers->play(late);
  send(small, true);
  EXPECT_EQ(seen(busy), "b");
  EXPECT_EQ(seen(free), "C") << "it had to wait for somebody else";
  runUntil([&] { return seen(busy) == "BC"; });
}

// At most one frame waits behind the frame that is being sent.
TEST_F(ViewersTest, ABusyPathDropsOnlyFramesNobodyDependsOn) {
  struct {
    std::vector<bool> keyFrames;
    char const* received;
    int keyFramesWanted;
  } const cases[] = {
      {{true, true, true}, "AC", 0},    // all are key frames: the newest one waits
      {{true, false}, "AB", 0},         // the waiting frame is not dropped
      {{true, false, false}, "AB", 1},  // nothing is usable until the next key frame
      {{true, false, true}, "AC", 0},  {{true, false, false, true}, "AD", 0},
  };
  for (auto const& [keyFrames, received, keyFramesWanted] : cases) {
    SCOPED_TRACE(received);
    m_Frames = 0;
    m_Sequence = 65530;
    Player receiver(1);
    Viewer& viewer = join(receiver);
    m_KeyFramesWanted = 0;
    for (bool const keyFrame : keyFrames) {
      send(large, keyFrame);
    }
    runUntil([&, text = std::string(received)] { return seen(receiver) == text; });
    EXPECT_EQ(viewer.observer().figures().framesDropped, keyFrames.size() - std::strlen(received));
    if (keyFramesWanted > 0) {
      EXPECT_EQ(viewer.state(), ViewerState::AwaitingKeyFrame);
      send(small, false);
      EXPECT_EQ(m_KeyFramesWanted, 1) << "it asks when its path is free";
      for (int i = 0; i < 10; ++i) {
        send(small, false);
      }
      EXPECT_EQ(m_KeyFramesWanted, 1) << "it asks once in two seconds";
    }
    m_Viewers->remove(viewer);
  }
}

// However a viewer ends in mid-frame, the other viewer gets the complete frame.
TEST_F(ViewersTest, AViewerThatLeavesInMidFrameAffectsNoOther) {
  std::function<void(Viewer&)> const ways[] = {
      [&](Viewer& viewer) { m_Viewers->remove(viewer); },
      [&](Viewer& viewer) { m_Viewers->pause(viewer); },
      [&](Viewer& viewer) {
        viewer.transport().udp()->destination().exceedsMtu = true;
        runUntil([&] { return viewer.state() == ViewerState::AwaitingKeyFrame; });
        m_Viewers->remove(viewer);
      },
      [&](Viewer& viewer) {
        viewer.transport().udp()->destination().exceedsMtu = true;
        m_Viewers->remove(viewer);
        Player another(3);
        m_Viewers->remove(join(another));
      },
  };
  for (auto const& leave : ways) {
    m_Frames = 0;
    Player stays(1);
    Player leaves(2);
    Viewer& first = join(stays);
    Viewer& second = join(leaves);
    send(large, true);
    send(small, true);
    leave(second);
    runUntil([&] { return seen(stays) == "AB"; });
    EXPECT_EQ(seen(leaves), "a");
    if (m_Viewers->takes(true)) {
      m_Viewers->remove(first);
    }
    m_Viewers = std::make_unique<Viewers>(*m_Scheduler, DeliveryContext{.policy = {.address = "", .paceMbit = 8}},
                                          *this, m_Observer);
  }
}

// The viewer lost a frame: it gets nothing until the next key frame, whose packets fit its path.
TEST_F(ViewersTest, AViewerWhosePathNarrowsWaitsForAKeyFrame) {
  Player receiver(1);
  Viewer& viewer = join(receiver);
  send(small, true);
  EXPECT_EQ(seen(receiver), "A");
  std::size_t const before = m_Viewers->maxPacket();
  m_KeyFramesWanted = 0;
  viewer.transport().udp()->destination().exceedsMtu = true;
  send(small, false);
  send(small, false);
  EXPECT_EQ(seen(receiver), "A");
  EXPECT_GT(m_KeyFramesWanted, 0);
  EXPECT_LT(m_Viewers->maxPacket(), before);
  EXPECT_TRUE(m_IsKeyFrameWanted);
  send(small, true);
  EXPECT_FALSE(m_IsKeyFrameWanted) << "there is one now";
  send(small, false);
  EXPECT_EQ(seen(receiver), "ADE");
}

// As when memory runs out in mid-frame.
TEST_F(ViewersTest, AfterAFailureAViewerWaitsForAKeyFrame) {
  Player receiver(1);
  Viewer& viewer = join(receiver);
  send(large, true);
  m_KeyFramesWanted = 0;
  m_Viewers->failed();
  EXPECT_EQ(viewer.state(), ViewerState::AwaitingKeyFrame);
  EXPECT_EQ(m_KeyFramesWanted, 1);
  send(small, false);
  send(small, true);
  runUntil([&] { return seen(receiver) == "aC"; });
}

TEST_F(ViewersTest, ReportsPrecedeFramesAndAViewerThatResumesGetsNoOldFrame) {
  Player receiver(1);
  Player other(2);
  Viewer& stays = join(other);
  send(small, true);
  Viewer& viewer = add(receiver);
  Frame const* const first = m_Viewers->play(viewer);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(framesAndReports(receiver), "0") << "before the response";
  m_Viewers->begin(viewer);
  EXPECT_EQ(framesAndReports(receiver), "A1");
  m_Viewers->pause(viewer);
  EXPECT_EQ(m_Viewers->play(viewer), nullptr);
  m_Viewers->begin(viewer);
  EXPECT_EQ(framesAndReports(receiver), "A1");
  m_Viewers->remove(stays);
  m_Viewers->remove(viewer);
  EXPECT_TRUE(m_Viewers->empty());
}

// A restarted client takes over its own ports, and nobody else's.
TEST_F(ViewersTest, PortsAreTakenOverOnlyFromTheSameAddress) {
  Player receiver(1);
  Player elsewhere(2, receiver.rtp.port());
  Viewer& before = join(receiver);
  Viewer& other = join(elsewhere);
  EXPECT_EQ(before.state(), ViewerState::Joining);
  Viewer& again = add(receiver);
  EXPECT_EQ(before.state(), ViewerState::Joining) << "SETUP alone takes nothing from anybody";
  m_Viewers->play(again);
  EXPECT_EQ(before.state(), ViewerState::Paused);
  EXPECT_EQ(other.state(), ViewerState::Joining);
}

// A report counts if it comes from the viewer's address, and at most once in 50 ms.
TEST_F(ViewersTest, ReportsCountOnlyFromTheirViewer) {
  Player receiver(1);
  Player foreign(2);
  Viewer& viewer = join(receiver);
  int reports = 0;
  viewer.onReport([&](bool) { ++reports; });
  std::uint16_t const server = static_cast<std::uint16_t>(m_Viewers->serverPort(AF_INET) + 1);
  std::vector<std::uint8_t> const empty = {0x80, 201, 0, 1, 0, 0, 0, 9};
  foreign.rtcp.send(empty, server);
  UdpReceiver(1).send(empty, server);  // another port, as behind NAT
  runUntil([&] { return reports == 1; });
  for (int i = 0; i < 20; ++i) {
    receiver.rtcp.send(empty, server);
  }
  passes(20);
  EXPECT_EQ(reports, 1) << "one in 50 ms";
}

// The round trip excludes the time for which the receiver held the sender report, and is known
// however often others are probed or join meanwhile.
TEST_F(ViewersTest, TheRoundTripExcludesTheReceiversDelay) {
  Player receiver(1);
  Reporter& reporter = m_Viewers->reporter();
  auto const sent = Viewer::Clock::now();
  Viewer& viewer = join(receiver);
  auto const lastReport = static_cast<std::uint32_t>(m_Ntp << 16);
  auto const joined = Viewer::Clock::now();
  runUntil([&] { return Viewer::Clock::now() - joined > 300ms; });
  Player other(2);
  Viewer& restless = add(other);
  for (int i = 0; i < 100; ++i) {
    reporter.probe(viewer);
    m_Viewers->play(restless);
    m_Viewers->begin(restless);
    m_Viewers->pause(restless);
  }
  std::vector<std::uint8_t> report(32);
  report = {0x81, 201, 0, 7, 0, 0, 0, 9, 0, 0, 0, 3};
  report.resize(32);
  for (int i = 0; i < 4; ++i) {
    report[24 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(lastReport >> 8 * (3 - i));
  }
  report[30] = 0x40;  // 0.25 s
  reporter.handle(viewer, report);
  auto const roundTrip = viewer.observer().figures().reception.roundTrip;
  ASSERT_TRUE(roundTrip);
  EXPECT_GE(*roundTrip, 50ms);
  EXPECT_LE(*roundTrip, Viewer::Clock::now() - sent - 250ms);
}

// A packet for which the burst is too small goes to one recipient after the other, even if some leave.
TEST(PacedFrame, ARecipientThatLeavesDoesNotShiftTheOthersTurns) {
  FramePool pool;
  PacedFrame paced;
  paced.frame = pool.take();
  paced.frame->packets.begin({});
  std::vector<std::uint8_t> const payload(10);
  for (int packet = 0; packet < 2; ++packet) {
    paced.frame->packets.add({}, payload, false);
  }
  struct alignas(UdpTransport) {
    char bytes[sizeof(UdpTransport)];
  } places[3];
  auto const recipient = [&](int i) { return reinterpret_cast<UdpTransport*>(&places[i]); };
  paced.recipients = {recipient(0), recipient(1), recipient(2)};
  paced.advance(1, 2);
  EXPECT_TRUE(paced.remove(*recipient(0)));
  EXPECT_FALSE(paced.remove(*recipient(0)));
  EXPECT_EQ(paced.recipients.at(paced.recipient), recipient(2));
  EXPECT_TRUE(paced.remove(*recipient(2)));
  EXPECT_EQ(paced.next, 1U) << "the last one that had to get the packet has left";
  EXPECT_EQ(paced.recipient, 0U);
  EXPECT_FALSE(paced.isDone());
  paced.recipients.push_back(recipient(2));
  paced.advance(1, 1);
  paced.clear();
  EXPECT_EQ(paced.recipient, 0U);
  EXPECT_EQ(paced.next, 0U);
}
