// A stream from its queue to the sockets of its viewers.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "delivery/udpreceiver.h"
#include "eventloop/looptest.h"
#include "eventloop/quietusageenvironment.h"
#include "rtsp/h264demandsession.h"

using namespace kavo::impl;
using namespace std::chrono_literals;

namespace {

std::size_t g_TooLarge = SIZE_MAX;  // arrays from this size on get no memory

}  // namespace

void* operator new[](std::size_t size) { return size < g_TooLarge ? std::malloc(size) : throw std::bad_alloc(); }
[[gnu::noinline]] void operator delete[](void* array) noexcept { std::free(array); }
void operator delete[](void* array, std::size_t) noexcept { operator delete[](array); }

namespace {

struct Receiver : Player {
  // The time stamps of the frames that have become complete. All packets must follow one another.
  std::vector<std::uint32_t> timeStamps() {
    std::vector<std::uint32_t> stamps;
    for (auto const& arrived = read(); taken < arrived.size() && arrived[taken].isComplete; ++taken) {
      stamps.push_back(arrived[taken].time);
    }
    EXPECT_EQ(gaps, 0);
    return stamps;
  }

  std::size_t taken = 0;  // frames
  // From the response to PLAY.
  void* viewer = nullptr;
  std::uint16_t sequence = 0;
  std::uint32_t time = 0;
};

class DemandSessionTest : public LoopTest {
 protected:
  using Clock = std::chrono::steady_clock;

  ~DemandSessionTest() override {
    Medium::close(m_Session);
    m_Environment->reclaim();
  }

  // SETUP over UDP and PLAY; begin() follows once the response is sent.
  void play(Receiver& player) {
    sockaddr_storage to = player.rtp.address;
    u_int8_t ttl = 0;
    Boolean multicast = False;
    Port serverRtp(0);
    Port serverRtcp(0);
    session().getStreamParameters(1, player.rtp.address, Port(player.rtp.port()), Port(player.rtcp.port()), -1, 0, 0,
                                  nullptr, to, ttl, multicast, serverRtp, serverRtcp, player.viewer);
    session().startStream(1, player.viewer, nullptr, nullptr, player.sequence, player.time, nullptr, nullptr);
  }
  void begin(Receiver& player) { viewer(player).viewers().begin(viewer(player)); }
  void join(Receiver& player) {
    play(player);
    begin(player);
  }
  void leave(Receiver& player) { session().deleteStream(1, player.viewer); }

  // Pushes a frame of one slice, submitted a minute after the previous one.
  void push(bool isKeyFrame = true, int size = 3000) { push(m_Time += 60s, isKeyFrame, size); }
  void push(Clock::time_point submitted, bool isKeyFrame = true, int size = 3000) {
    FrameSourceHandler::FrameData frame{};
    ASSERT_EQ(av_new_packet(&frame.packet, size), 0);
    std::fill_n(frame.packet.data, size, 0x11);
    std::copy_n(isKeyFrame ? "\0\0\0\1\x65" : "\0\0\0\1\x41", 5, frame.packet.data);
    frame.packet.flags = isKeyFrame ? AV_PKT_FLAG_KEY : 0;
    FrameSourceHandler::setSubmitTime(frame.packet, submitted);
    m_Queue->observer().add(Count::Offered);
    m_Queue->push(frame);
    m_Session->signalNewFrame(m_Scheduler.get());
  }

  // Waits for so many frames and returns the time stamps of all that have arrived.
  std::vector<std::uint32_t> receive(Receiver& player, std::size_t count) {
    std::vector<std::uint32_t> stamps;
    runUntil([&] {
      std::ranges::copy(player.timeStamps(), std::back_inserter(stamps));
      return stamps.size() >= count;
    });
    return stamps;
  }

  ServerMediaSubsession& session() { return *m_Session; }
  static Viewer& viewer(Receiver& player) { return *static_cast<Viewer*>(player.viewer); }

  UsageEnvironment* const m_Environment = QuietUsageEnvironment::createNew(*m_Scheduler);
  std::shared_ptr<FrameSourceHandler> const m_Queue = std::make_shared<FrameSourceHandler>();
  H264DemandSession* const m_Session = H264DemandSession::createNew(*m_Environment, m_Queue);
  Receiver m_Player;
  Clock::time_point m_Time = Clock::now();
};

}  // namespace

// With frames that are sent at once, and with frames that are paced.
TEST_F(DemandSessionTest, AJoiningViewerStartsWithTheNewestFrame) {
  for (int const size : {3000, 100000}) {
    SCOPED_TRACE(size);
    m_Queue->observer().add(Count::Offered);  // no frame has been delivered yet
    Receiver first;
    join(first);
    push(true, size);
    push(true, size);
    EXPECT_EQ(receive(first, 2).size(), 2U);
    Receiver later;
    join(later);
    push(true, size);
    auto const stamps = receive(later, 2);
    ASSERT_EQ(stamps.size(), 2U) << "the next one follows it";
    EXPECT_EQ(stamps[0], later.time);
    EXPECT_EQ(later.first, later.sequence);
    EXPECT_EQ(receive(first, 1).size(), 1U);
    leave(first);
    leave(later);
  }
  // It is sent again after all have left, unless frames have been submitted since.
  Receiver afterAll;
  join(afterAll);
  EXPECT_EQ(receive(afterAll, 1), std::vector{afterAll.time});
  EXPECT_EQ(afterAll.first, afterAll.sequence);
  leave(afterAll);
  m_Queue->observer().add(Count::Offered);
  Receiver last;
  join(last);
  passes(20);
  EXPECT_EQ(last.timeStamps().size(), 0U) << "a picture that others have followed";
}

TEST_F(DemandSessionTest, ALostFrameIsFollowedByAKeyFrame) {
  join(m_Player);
  push();
  EXPECT_EQ(receive(m_Player, 1).size(), 1U);
  g_TooLarge = 100000;
  push(false, 100000);
  push(false);
  passes(20);
  g_TooLarge = SIZE_MAX;
  EXPECT_TRUE(m_Queue->keyFrameRequest().isPending());
  push(false);
  push();
  EXPECT_EQ(receive(m_Player, 1).size(), 1U) << "a frame that refers to the lost one";
}

// Even after a pause longer than the range of RTP time, and for frames submitted at the same time.
TEST_F(DemandSessionTest, RtpTimeFollowsTheTimeOfSubmission) {
  join(m_Player);
  auto const begin = Clock::now();
  std::chrono::microseconds const times[] = {0us, 40ms, 40ms + 1us, 40ms + 2us, 80ms, 7h, 7h + 40ms, 20h, 20h + 40ms};
  std::vector<std::uint32_t> expected;
  for (auto const time : times) {
    push(begin + time);
    expected.push_back(
        static_cast<std::uint32_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count() * 9 / 100));
  }
  expected[2] += 1;  // different frames never share a time stamp
  expected[3] += 2;
  auto const stamps = receive(m_Player, std::size(times));
  ASSERT_EQ(stamps.size(), std::size(times));
  for (std::size_t i = 0; i < stamps.size(); ++i) {
    EXPECT_NEAR(static_cast<std::int32_t>(stamps[i] - stamps[0] - expected[i]), 0, 1) << "frame " << i;
    EXPECT_NE(stamps[i], i > 0 ? stamps[i - 1] : stamps[i] + 1);
  }
}

TEST_F(DemandSessionTest, NothingIsEncodedAfterTheLastViewerHasLeft) {
  EXPECT_FALSE(m_Queue->IsStreaming());
  join(m_Player);
  EXPECT_TRUE(m_Queue->IsStreaming());
  auto const before = Clock::now();
  push(before);
  EXPECT_EQ(receive(m_Player, 1).size(), 1U);
  leave(m_Player);
  EXPECT_FALSE(m_Queue->IsStreaming());
  Receiver again;
  join(again);
  push(before);
  passes(20);
  EXPECT_EQ(again.timeStamps().size(), 0U) << "a frame that was submitted before everybody left";
  push();
  EXPECT_EQ(receive(again, 1).size(), 1U);
}

// Sender reports count packets and payload octets.
TEST_F(DemandSessionTest, SenderReportsCountWhatWasSent) {
  join(m_Player);
  push();
  push();
  EXPECT_EQ(receive(m_Player, 2).size(), 2U);
  viewer(m_Player).viewers().reporter().probe(viewer(m_Player));
  auto const reports = m_Player.rtcp.packets();
  ASSERT_EQ(reports.size(), 2U);
  EXPECT_EQ(reassembly::numberAt(reports[0], 20, 4), 0U);
  EXPECT_EQ(reassembly::numberAt(reports[1], 20, 4), 6U);
  EXPECT_EQ(reassembly::numberAt(reports[1], 24, 4), m_Player.payload);
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
