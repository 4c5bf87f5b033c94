#include "rtsp/jpegsource.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "eventloop/epollscheduler.h"
#include "eventloop/quietusageenvironment.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

using namespace kavo::impl;

namespace {

// A consumer of one frame at a time, in place of the RTP sink.
class JpegSourceTest : public ::testing::Test {
 protected:
  JpegSourceTest() : m_Source(JpegSource::createNew(*m_Environment, m_Queue)) {}
  ~JpegSourceTest() override {
    Medium::close(m_Source);
    m_Scheduler.reset();
    m_Environment->reclaim();
  }

  void queue(std::size_t size, std::size_t headerLength) {
    FrameSourceHandler::FrameData data{};
    av_new_packet(&data.packet, static_cast<int>(size));
    std::memset(data.packet.data, 1, size);
    if (headerLength > 0) {
      std::uint8_t const sof0[] = {0xFF, 0xC0, 0, 17, 8, 1, 0xE0, 2, 0x80};
      std::memcpy(data.packet.data, sof0, sizeof sof0);
      data.packet.data[headerLength - 2] = 0x3F;
      data.packet.data[headerLength - 1] = 0;
    }
    FrameSourceHandler::setSubmitTime(data.packet, std::chrono::steady_clock::now());
    m_Queue->push(data);
  }

  // Asks for a frame, and runs the loop's next pass.
  void request(unsigned room) {
    m_Source->getNextFrame(m_Buffer.data(), room, gotFrame, this, nullptr, nullptr);
    char volatile stop = 0;
    m_Scheduler->scheduleDelayedTask(
        0, [](void* flag) { *static_cast<char volatile*>(flag) = 1; }, const_cast<char*>(&stop));
    m_Scheduler->doEventLoop(&stop);
  }

  static void gotFrame(void* self, unsigned size, unsigned truncated, timeval, unsigned) {
    auto* test = static_cast<JpegSourceTest*>(self);
    ++test->m_Frames;
    test->m_Size = size;
    test->m_Truncated = truncated;
  }

  EventLoopRole::Holder m_Role{eventLoopRole};
  std::unique_ptr<TaskScheduler> m_Scheduler{EpollScheduler::createNew(10000)};
  UsageEnvironment* m_Environment = QuietUsageEnvironment::createNew(*m_Scheduler);
  std::shared_ptr<FrameSourceHandler> m_Queue = std::make_shared<FrameSourceHandler>();
  JpegSource* m_Source;
  std::array<unsigned char, 4096> m_Buffer{};
  int m_Frames = 0;
  unsigned m_Size = 0;
  unsigned m_Truncated = 0;
};

}  // namespace

TEST_F(JpegSourceTest, DeliversAQueuedFrameWithoutItsHeader) {
  EXPECT_TRUE(m_Queue->IsStreaming());
  queue(1000, 600);
  queue(900, 600);
  EXPECT_EQ(m_Frames, 0);
  request(4096);
  EXPECT_EQ(m_Frames, 1);
  EXPECT_EQ(m_Size, 400U);
  EXPECT_EQ(m_Queue->size(), 1U);
  EXPECT_EQ(m_Source->width(), 80);
  EXPECT_EQ(m_Source->height(), 60);
  EXPECT_EQ(m_Source->type(), 1);
  EXPECT_EQ(m_Source->qFactor(), 195);
}

TEST_F(JpegSourceTest, TruncatesAgainstTheWholePacket) {
  queue(1100, 600);
  request(1000);
  EXPECT_EQ(m_Size, 400U);
  EXPECT_EQ(m_Truncated, 100U);
  // A header longer than what is delivered leaves nothing, and wraps around nowhere.
  queue(700, 600);
  request(500);
  EXPECT_EQ(m_Size, 0U);
}

TEST_F(JpegSourceTest, DropsAnEmptyFrameAndGoesOnWaiting) {
  eventLoopRole.assertHeld();
  m_Queue->push({});
  request(4096);
  EXPECT_EQ(m_Frames, 0);
  EXPECT_TRUE(m_Queue->empty());
  EXPECT_TRUE(m_Source->isCurrentlyAwaitingData());
  Medium::close(m_Source);
  m_Source = JpegSource::createNew(*m_Environment, m_Queue);
  m_Queue->push({});
  queue(1000, 600);
  request(4096);
  EXPECT_EQ(m_Frames, 1) << "a frame behind an empty one has to wait";
}

TEST_F(JpegSourceTest, WarnsOnceAFrameAndDeliversItWhole) {
  queue(700, 0);
  ::testing::internal::CaptureStdout();
  request(4096);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "WARNING: zRJPEGVideoSource -> Failed to find SOF0 marker in header!\n"
            "WARNING: zRJPEGVideoSource -> Failed to find header size!\n");
  EXPECT_EQ(m_Size, 700U);
}

TEST_F(JpegSourceTest, AFrameFromBeforeTheSourceIsNotDelivered) {
  eventLoopRole.assertHeld();
  queue(1000, 600);
  Medium::close(m_Source);
  queue(1000, 600);  // its encoding ended after nobody watched any more
  m_Source = JpegSource::createNew(*m_Environment, m_Queue);
  EXPECT_TRUE(m_Queue->empty());
  FrameSourceHandler::FrameData late{};
  av_new_packet(&late.packet, 1000);
  FrameSourceHandler::setSubmitTime(late.packet, std::chrono::steady_clock::now() - std::chrono::seconds(1));
  m_Queue->push(late);
  request(4096);
  EXPECT_EQ(m_Frames, 0);
  EXPECT_TRUE(m_Queue->empty());
}

TEST_F(JpegSourceTest, ItsSinksBufferGrowsWithTheFrames) {
  FrameBuffer buffer;
  m_Source->setBuffer(&buffer);
  queue(3000, 600);
  request(0);
  EXPECT_EQ(m_Size, 2400U);
  EXPECT_EQ(m_Truncated, 0U);
  EXPECT_GE(buffer.size(), 3000U);
}
