// A stream from its queue to its viewers' sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "delivery/udpreceiver.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/quietusageenvironment.h"
#include "rtp/reassembly.h"
#include "rtsp/h264demandsession.h"

using namespace kavo::impl;
using namespace std::chrono_literals;

namespace {

class DemandSessionTest : public ::testing::Test {
 protected:
  using Clock = std::chrono::steady_clock;

  ~DemandSessionTest() override {
    Medium::close(m_Session);
    m_Environment->reclaim();
  }

  // A viewer over UDP, up to the response to PLAY.
  void* join() {
    ServerMediaSubsession& session = *m_Session;
    sockaddr_storage to = m_Rtp.address;
    u_int8_t ttl = 0;
    Boolean multicast = False;
    Port serverRtp(0);
    Port serverRtcp(0);
    void* viewer = nullptr;
    session.getStreamParameters(1, m_Rtp.address, Port(m_Rtp.port()), Port(m_Rtcp.port()), -1, 0, 0, nullptr, to, ttl,
                                multicast, serverRtp, serverRtcp, viewer);
    unsigned short sequence = 0;
    unsigned time = 0;
    session.startStream(1, viewer, nullptr, nullptr, sequence, time, nullptr, nullptr);
    static_cast<Viewer*>(viewer)->viewers().begin(*static_cast<Viewer*>(viewer));
    return viewer;
  }

  // An IDR picture that was submitted at that time.
  void push(Clock::time_point submitted) {
    FrameSourceHandler::FrameData frame{};
    ASSERT_EQ(av_new_packet(&frame.packet, 3000), 0);
    std::fill_n(frame.packet.data, 3000, 0x11);
    std::copy_n("\0\0\0\1\x65", 5, frame.packet.data);
    frame.packet.flags = AV_PKT_FLAG_KEY;
    FrameSourceHandler::setSubmitTime(frame.packet, submitted);
    m_Queue->push(frame);
    m_Session->signalNewFrame(m_Scheduler.get());
  }

  void step() {
    for (int i = 0; i < 20; ++i) {
      static_cast<BasicTaskScheduler0&>(*m_Scheduler).SingleStep(1);
    }
  }

  // The time stamps of the frames that have come.
  std::vector<std::uint32_t> timeStamps() {
    step();
    std::vector<std::uint32_t> stamps;
    for (auto const& packet : m_Rtp.packets()) {
      m_Payload += packet.size() - 12;
      if ((packet[1] & 0x80) != 0) {
        stamps.push_back(reassembly::numberAt(packet, 4, 4));
      }
    }
    return stamps;
  }

  EventLoopRole::Holder const m_Role{eventLoopRole};
  std::unique_ptr<EpollScheduler> const m_Scheduler{EpollScheduler::createNew(10000)};
  UsageEnvironment* const m_Environment = QuietUsageEnvironment::createNew(*m_Scheduler);
  std::shared_ptr<FrameSourceHandler> const m_Queue = std::make_shared<FrameSourceHandler>();
  H264DemandSession* const m_Session = H264DemandSession::createNew(*m_Environment, m_Queue);
  UdpReceiver m_Rtp;
  UdpReceiver m_Rtcp;
  std::size_t m_Payload = 0;
};

}  // namespace

// Also where none came for longer than RTP time takes to come round, or two came at once.
TEST_F(DemandSessionTest, RtpTimeFollowsTheTimeOfSubmission) {
  join();
  auto const begin = Clock::now();
  std::chrono::microseconds const times[] = {0us, 40ms, 40ms + 1us, 40ms + 2us, 80ms, 7h, 7h + 40ms, 20h, 20h + 40ms};
  std::vector<std::uint32_t> expected;
  for (auto const time : times) {
    push(begin + time);
    expected.push_back(
        static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count() * 9 / 100));
  }
  expected[2] += 1;  // frames of different times never share one
  expected[3] += 2;
  auto const stamps = timeStamps();
  ASSERT_EQ(stamps.size(), std::size(times));
  for (std::size_t i = 0; i < stamps.size(); ++i) {
    EXPECT_NEAR(static_cast<std::int32_t>(stamps[i] - stamps[0] - expected[i]), 0, 1) << "frame " << i;
    EXPECT_NE(stamps[i], i > 0 ? stamps[i - 1] : stamps[i] + 1);
  }
}

TEST_F(DemandSessionTest, NothingIsEncodedAfterTheLastViewerHasLeft) {
  EXPECT_FALSE(m_Queue->IsStreaming());
  void* viewer = join();
  EXPECT_TRUE(m_Queue->IsStreaming());
  auto const before = Clock::now();
  push(before);
  EXPECT_EQ(timeStamps().size(), 1U);
  static_cast<ServerMediaSubsession*>(m_Session)->deleteStream(1, viewer);
  EXPECT_FALSE(m_Queue->IsStreaming());
  join();
  push(before);
  EXPECT_EQ(timeStamps().size(), 0U) << "a frame that was submitted before everybody left";
  push(Clock::now());
  EXPECT_EQ(timeStamps().size(), 1U);
}

// Reports count packets, and the octets of their payloads.
TEST_F(DemandSessionTest, SenderReportsCountWhatWasSent) {
  void* const viewer = join();
  push(Clock::now());
  push(Clock::now());
  EXPECT_EQ(timeStamps().size(), 2U);
  static_cast<Viewer*>(viewer)->viewers().reporter().probe(*static_cast<Viewer*>(viewer));
  auto const reports = m_Rtcp.packets();
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(reassembly::numberAt(reports[0], 20, 4), 0U);
  EXPECT_EQ(reassembly::numberAt(reports[1], 20, 4), 6U);
  EXPECT_EQ(reassembly::numberAt(reports[1], 24, 4), m_Payload);
}

TEST(KeyFrameRequest, IsGrantedOnceInHalfASecond) {
  KeyFrameRequest request;
  auto now = KeyFrameRequest::Clock::now();
  int granted = 0;
  for (int i = 0; i < 20; ++i, now += 100ms) {
    request.ask();
    granted += request.take(now) ? 1 : 0;
    EXPECT_FALSE(request.take(now)) << "one request gives one key frame";
  }
  EXPECT_EQ(granted, 4);
  request.ask();
  request.withdraw();
  EXPECT_FALSE(request.take(now + 10s));
}
