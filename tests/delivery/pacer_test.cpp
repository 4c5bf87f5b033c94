#include "delivery/pacer.h"

#include <gtest/gtest.h>
#include <netinet/in.h>

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

TEST(Pacer, StreamsOfAHostShareWhatItsPathTakes) {
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
