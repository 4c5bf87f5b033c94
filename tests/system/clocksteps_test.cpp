// A wall clock that is set, as a camera's is after boot, while viewers watch.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "system/host.h"
#include "system/player.h"
#include "system/rtspclient.h"

namespace {

void setClock(std::string const& file, std::int64_t seconds) {
  std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
  stream.write(reinterpret_cast<char const*>(&seconds), sizeof seconds);
}

// Everything that arrives of the next pictures.
bool goesOn(RtspClient& viewer) {
  for (int i = 0; i < 10; ++i) {
    if (!viewer.receivesAPicture()) {
      return false;
    }
  }
  return true;
}

}  // namespace

TEST(ClockSteps, EndNoSessionAndDelayNoPicture) {
  TemporaryFolder folder;
  auto const clock = folder.file("clock");
  std::ofstream(clock, std::ios::binary) << std::string(8, '\0');
  for (std::string const codec : {"jpeg", "h264"}) {
    auto const port = freePort();
    setClock(clock, 0);
    Process publisher({"env", "LD_PRELOAD=" KAVO_CLOCK_SHIM, "KAVO_CLOCK_FILE=" + clock, KAVO_PUBLISH, "--port",
                       std::to_string(port), "--size", "320x240", "--codec", codec},
                      folder.file("output"));
    while (contentOf(folder.file("output")).find("Ctrl-C") == std::string::npos) {
      ASSERT_TRUE(publisher.runs()) << contentOf(folder.file("output"));
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    auto const url = "rtsp://127.0.0.1:" + std::to_string(port) + "/kavo";
    RtspClient tcp(port);
    RtspClient udp(port);
    ASSERT_TRUE(tcp.play(url) && udp.playOverUdp(url));
    std::int64_t const hour = 3600;
    std::int64_t const fiftyYears = std::int64_t{50} * 365 * 24 * hour;
    std::int64_t const tenMinutes = 600;
    for (std::int64_t const seconds : {hour, std::int64_t{0}, -tenMinutes, -hour, fiftyYears, std::int64_t{0}}) {
      setClock(clock, seconds);
      EXPECT_TRUE(goesOn(tcp)) << codec << ", clock at " << seconds;
      EXPECT_TRUE(goesOn(udp)) << codec << ", clock at " << seconds;
    }
    EXPECT_EQ(tcp.request("GET_PARAMETER", url).status, 200);
    EXPECT_EQ(udp.request("GET_PARAMETER", url).status, 200);
  }
}
