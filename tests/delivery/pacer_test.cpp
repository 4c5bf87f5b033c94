#include "delivery/pacer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <algorithm>

using namespace kavo::impl;
using namespace std::chrono_literals;

namespace {

sockaddr_storage host(std::uint8_t last) {
  sockaddr_storage address{};
  auto& ipv4 = reinterpret_cast<sockaddr_in&>(address);
  ipv4.sin_family = AF_INET;
  ipv4.sin_addr.s_addr = htonl(0x0A000000U + last);
  ipv4.sin_port = htons(1000);
  return address;
}

}  // namespace

TEST(Pacer, StreamsToOneAddressShareItsPath) {
  Pacer pacer(std::nullopt);
  auto const path = pacer.pathTo(host(1));
  EXPECT_EQ(pacer.pathTo(host(1)), path);
  EXPECT_NE(pacer.pathTo(host(2)), path);
  constexpr std::size_t burst = 48 * 1024;
  EXPECT_TRUE(path->takesAtOnce(burst));
  EXPECT_FALSE(path->takesAtOnce(burst + 1));
  auto const begin = Pacer::Clock::now();
  EXPECT_EQ(path->room(begin), burst);
  path->sent(burst, 35, begin);
  EXPECT_EQ(path->room(begin), 0U);
  auto const wait = path->until(16384, begin);
  EXPECT_NEAR(static_cast<double>(wait.count()), 2800, 300) << "at 100 Mbit/s";
  EXPECT_GE(path->room(begin + wait), 16384U);
  EXPECT_EQ(path->room(begin + 10ms), burst);
}

// Bytes sent above the rate have left or were dropped: later frames do not pay for them.
TEST(Pacer, AnOverrunPathIsFreeAgainAtOnce) {
  for (std::optional<int> const pace : {std::optional<int>(), std::optional(1)}) {
    Pacer pacer(pace);
    auto const path = pacer.pathTo(host(1));
    std::size_t const burst = path->room(Pacer::Clock::now());
    auto now = Pacer::Clock::now();
    for (int frame = 0; frame < 250; ++frame, now += 40ms) {
      path->sent(10 * burst, 0, now);
    }
    EXPECT_LE(path->until(1, now - 40ms), pace ? 200ms : 40ms);
    EXPECT_EQ(path->room(now + 1h), burst) << "however long ago";
  }
}

// The rate rises with demand that lasts a second or longer; a single large frame is paced.
TEST(Pacer, TheRateFollowsLastingDemand) {
  constexpr std::size_t frame = 1000000;
  constexpr auto interval = 40ms;
  Pacer pacer(std::nullopt);
  auto const path = pacer.pathTo(host(1));
  auto now = Pacer::Clock::now();
  auto const timeOf = [&] {
    path->sent(frame, 0, now);
    auto const time = path->until(16384, now);
    now += 1s;  // the path drains
    return time;
  };
  auto const usual = timeOf();
  EXPECT_GE(usual, 5ms) << "48 kB and more are queued, at 100 Mbit/s";
  path->offer(frame, 0, now);
  path->offer(frame, 0, now += 2ms);
  EXPECT_EQ(timeOf(), usual) << "two frames at once are no lasting demand";
  path->offer(frame, 0, now);
  now += 1s;
  path->offer(frame, 0, now);
  EXPECT_EQ(timeOf(), usual) << "one frame a second is within the rate";
  for (auto const end = now + 2s; now < end; now += interval) {
    path->offer(frame, 0, now);  // 200 Mbit/s
  }
  std::size_t sent = 0;
  for (auto const end = now + 1s; now < end; now += 1ms) {
    std::size_t const room = path->room(now);
    path->sent(room, 0, now);
    sent += room;
  }
  EXPECT_GE(sent, frame * 25) << "what the frames need";
  EXPECT_LE(sent, frame * 25 * 12 / 10);
  path->offer(frame, 0, now += 5s);
  path->offer(frame, 0, now += 1s);
  EXPECT_EQ(timeOf(), usual) << "when the demand has ended";
}

// Even if the thread wakes half a millisecond late each time, a small queue does not run empty: ten viewers
// of 25 frames of 25 kB a second get all of them at 60 Mbit/s.
TEST(Pacer, LateWakeUpsCostNoThroughput) {
  Pacer pacer(60);
  auto const path = pacer.pathTo(host(1));
  constexpr std::size_t packet = 1400;
  constexpr int packets = 10 * 25000 / packet;
  auto const begin = Pacer::Clock::now();
  auto now = begin;
  for (int sent = 0; sent < packets; now += path->until(16384 * 10, now) + 500us) {
    auto const some = std::min(packets - sent, static_cast<int>(path->room(now) / packet));
    path->sent(static_cast<std::size_t>(some) * packet, static_cast<std::size_t>(some), now);
    sent += some;
  }
  EXPECT_LE(now - begin, 36ms) << "33.5 at the rate, 40 until the next frame";
}
