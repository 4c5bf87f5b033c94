// The wall clock is set while viewers watch, as a camera's is after boot.
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <deque>
#include <optional>
#include <thread>

#include "system/rtspclient.h"
#include "system/shiftedpublisher.h"

namespace {

std::uint32_t numberAt(std::vector<std::uint8_t> const& bytes, std::size_t at) {
  return static_cast<std::uint32_t>(bytes[at] << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 | bytes[at + 3]);
}

// One moment on both clocks, from a sender report.
struct Moment {
  double wall;
  std::uint32_t rtp;
};

// A viewer and what it has received so far.
class Watcher {
 public:
  Watcher(ShiftedPublisher const& publisher, bool tcp) : m_Client(publisher.port()) {
    EXPECT_TRUE(tcp ? m_Client.play(publisher.url()) : m_Client.playOverUdp(publisher.url()));
  }

  // Reads frames until a sender report carries the clock that is ahead by this shift. RTP time must not
  // jump, and the report must come soon: within 11 s of RTP time, which includes frames that arrived while
  // the test waited for other viewers.
  void follow(std::int64_t shift) {
    std::optional<std::uint32_t> begin;
    while (true) {
      auto const packet = m_Client.packet();
      ASSERT_GE(packet.channel, 0) << "nothing comes any more, clock at " << shift;
      if (packet.channel == 1) {
        if (isReportAt(packet.bytes, shift)) {
          return;
        }
        continue;
      }
      std::uint32_t const timestamp = numberAt(packet.bytes, 4);
      begin = begin.value_or(timestamp);
      if (m_Frames > 0) {
        ASSERT_LE(timestamp - m_Timestamp, 5U * 90000U) << "RTP time jumped, clock at " << shift;
        ASSERT_LE(timestamp - *begin, 11U * 90000U) << "no report carries the clock at " << shift;
      }
      m_Frames += (packet.bytes[1] & 0x80) != 0 ? 1 : 0;
      m_Timestamp = timestamp;
    }
  }

  int frames() const { return m_Frames; }

 private:
  // Compares the first report with this machine's clock, roughly, and later ones with the first, exactly.
  bool isReportAt(std::vector<std::uint8_t> const& report, std::int64_t shift) {
    constexpr double from1900To1970 = 2208988800.0;
    double const wall = numberAt(report, 8) + numberAt(report, 12) / 4294967296.0 - static_cast<double>(shift);
    std::uint32_t const rtp = numberAt(report, 16);
    if (!m_First && std::abs(wall - from1900To1970 - static_cast<double>(std::time(nullptr))) < 100) {
      m_First = {wall, rtp};
    }
    return m_First && std::abs(m_First->wall + static_cast<std::int32_t>(rtp - m_First->rtp) / 90000.0 - wall) <= 0.002;
  }

  RtspClient m_Client;
  std::optional<Moment> m_First;
  std::uint32_t m_Timestamp = 0;
  int m_Frames = 0;
};

}  // namespace

// All times fit NTP's 32 bits of seconds.
TEST(ClockSteps, DelayNoFrameMoveNoRtpTimeAndAreReportedSoon) {
  ShiftedPublisher publishers[] = {ShiftedPublisher("jpeg"), ShiftedPublisher("h264")};
  std::deque<Watcher> watchers;
  for (auto const& publisher : publishers) {
    watchers.emplace_back(publisher, true);
    watchers.emplace_back(publisher, false);
  }
  auto const step = [&](std::int64_t seconds) {
    for (auto& publisher : publishers) {
      publisher.setClocks(seconds, 0);
    }
    std::deque<std::thread> threads;
    for (auto& watcher : watchers) {
      threads.emplace_back([&] { watcher.follow(seconds); });
    }
    for (auto& thread : threads) {
      thread.join();
    }
  };
  step(-600);  // before the first frame, or just after it
  for (std::int64_t const seconds : {3600, 3599, -1000}) {
    int const before = watchers[0].frames();
    step(seconds);
    EXPECT_GT(watchers[0].frames(), before);
  }
}
