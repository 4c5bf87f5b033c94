#include "rtsp/accessunitframer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>

#include "rtsp/h264source.h"
#include "session/streamenvironment.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace kavo;

namespace {

using Bytes = std::vector<std::uint8_t>;

struct Delivered {
  Bytes bytes;
  unsigned truncated;
  timeval time;
  bool endsPicture;
};

bool operator==(timeval const& a, timeval const& b) { return a.tv_sec == b.tv_sec && a.tv_usec == b.tv_usec; }

// Queue, source and framer as in a stream, and a consumer in the RTP sink's place.
class AccessUnitFramerTest : public ::testing::Test {
 protected:
  AccessUnitFramerTest()
      : m_Framer(AccessUnitFramer::createNew(m_Environment.GetUsageEnvironment(),
                                             H264Source::createNew(m_Environment.GetUsageEnvironment(), m_Queue),
                                             [this] { ++m_KeyPictures; })) {}
  ~AccessUnitFramerTest() override { Medium::close(m_Framer); }

  void queue(Bytes const& bytes) {
    FrameSourceHandler::FrameData data{};
    av_new_packet(&data.packet, static_cast<int>(bytes.size()));
    std::copy(bytes.begin(), bytes.end(), data.packet.data);
    m_Queue->push(data);
  }

  void ask(unsigned room = 4096) { m_Framer->getNextFrame(m_Buffer.data(), room, gotFrame, this, nullptr, nullptr); }

  // Asks as long as frames come at once.
  std::vector<Delivered> take() {
    m_Delivered.clear();
    while (!m_Framer->isCurrentlyAwaitingData()) {
      ask();
    }
    return m_Delivered;
  }

  static void gotFrame(void* self, unsigned size, unsigned truncated, timeval time, unsigned) {
    auto* test = static_cast<AccessUnitFramerTest*>(self);
    auto const begin = test->m_Buffer.begin();
    test->m_Delivered.push_back({Bytes(begin, begin + size), truncated, time, test->m_Framer->pictureEndMarker() != 0});
    test->m_Framer->pictureEndMarker() = False;  // as the sink does
  }

  StreamEnvironment m_Environment;
  EventLoopRole::Holder m_Role{eventLoopRole};
  std::shared_ptr<FrameSourceHandler> m_Queue = std::make_shared<FrameSourceHandler>();
  int m_KeyPictures = 0;
  AccessUnitFramer* m_Framer;
  std::array<unsigned char, 4096> m_Buffer{};
  std::vector<Delivered> m_Delivered;
};

Bytes const keyPicture = {0x67, 1, 2, 0, 0, 0, 1, 0x68, 3, 0, 0, 0, 1, 0x65, 4, 5};

}  // namespace

TEST_F(AccessUnitFramerTest, HandsNalUnitsOnOneByOne) {
  queue(keyPicture);
  queue({0x41, 6, 7});
  queue({0x41, 8, 0, 0, 1, 0x41, 9});  // two slices
  auto const units = take();
  std::vector<Bytes> const expected = {{0x67, 1, 2}, {0x68, 3}, {0x65, 4, 5}, {0x41, 6, 7}, {0x41, 8}, {0x41, 9}};
  bool const ends[] = {false, false, true, true, false, true};
  ASSERT_EQ(units.size(), expected.size());
  for (std::size_t i = 0; i < units.size(); ++i) {
    EXPECT_EQ(units[i].bytes, expected[i]) << i;
    EXPECT_EQ(units[i].endsPicture, ends[i]) << i;
    EXPECT_EQ(units[i].truncated, 0U) << i;
  }
  EXPECT_TRUE(units[0].time == units[1].time && units[1].time == units[2].time);
  EXPECT_TRUE(units[4].time == units[5].time);
  EXPECT_EQ(m_KeyPictures, 1);
}

TEST_F(AccessUnitFramerTest, WaitsForAKeyPictureWhenTold) {
  eventLoopRole.assertHeld();
  m_Framer->awaitKeyPicture();
  for (int i = 0; i < 8; ++i) {
    queue({0x41, 1});
  }
  EXPECT_TRUE(take().empty());
  EXPECT_TRUE(m_Queue->empty());
  queue(keyPicture);
  queue({0x41, 2});
  // The framer's request is still open; the trigger would bring the frame.
  H264Source::signalNewFrameData(m_Environment.GetTaskScheduler(), m_Framer->inputSource());
  while (m_Delivered.empty()) {
    static_cast<BasicTaskScheduler0*>(m_Environment.GetTaskScheduler())->SingleStep(1000);
  }
  EXPECT_EQ(m_Delivered[0].bytes, (Bytes{0x67, 1, 2}));
  EXPECT_EQ(take().size(), 3U);
}

TEST_F(AccessUnitFramerTest, PassesOverEmptyOnesAndStartCodesInFront) {
  queue({});
  queue({0, 0, 0, 1});
  m_Queue->push({});
  queue({0, 0, 0, 1, 0x41, 5});
  auto const units = take();
  ASSERT_EQ(units.size(), 1U);
  EXPECT_EQ(units[0].bytes, (Bytes{0x41, 5}));
  EXPECT_TRUE(units[0].endsPicture);
}

TEST_F(AccessUnitFramerTest, TellsOfTruncation) {
  Bytes big(1000, 7);
  big[0] = 0x41;
  queue(big);
  ask(900);
  EXPECT_EQ(m_Delivered.at(0).bytes.size(), 900U);
  EXPECT_EQ(m_Delivered.at(0).truncated, 100U);
  // Cut inside the last NAL unit of several: the others are whole.
  queue({0x67, 1, 0, 0, 0, 1, 0x65, 2, 3, 4});
  ask(8);
  ask(8);
  EXPECT_EQ(m_Delivered.at(1).truncated, 0U);
  EXPECT_EQ(m_Delivered.at(2).bytes, (Bytes{0x65, 2}));
  EXPECT_EQ(m_Delivered.at(2).truncated, 2U);
}

TEST_F(AccessUnitFramerTest, TheSourceEndsStreamingAndEmptiesTheQueue) {
  eventLoopRole.assertHeld();
  queue(keyPicture);
  EXPECT_TRUE(m_Queue->IsStreaming());
  Medium::close(m_Framer);
  EXPECT_FALSE(m_Queue->IsStreaming());
  EXPECT_TRUE(m_Queue->empty());
  m_Framer = AccessUnitFramer::createNew(m_Environment.GetUsageEnvironment(),
                                         H264Source::createNew(m_Environment.GetUsageEnvironment(), m_Queue), [] {});
  H264Source::signalNewFrameData(nullptr, m_Framer->inputSource());
  H264Source::signalNewFrameData(m_Environment.GetTaskScheduler(), nullptr);
  H264Source::signalNewFrameData(m_Environment.GetTaskScheduler(), m_Framer);
}
