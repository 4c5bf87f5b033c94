// Many viewers behind live555's proxy server, which is one viewer to the host.
#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <fstream>
#include <sstream>
#include <thread>

#include "system/host.h"
#include "system/player.h"
#include "system/rtspclient.h"

namespace {

// Established TCP connections of this machine whose own port this is.
int connectionsOn(std::uint32_t port) {
  int count = 0;
  for (std::string const file : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream table(file);
    std::string line;
    std::getline(table, line);  // headings
    while (std::getline(table, line)) {
      std::istringstream fields(line);
      std::string number;
      std::string local;
      std::string remote;
      std::string state;
      fields >> number >> local >> remote >> state;
      bool const established = state == "01";
      count += established && std::stoul(local.substr(local.find(':') + 1), nullptr, 16) == port ? 1 : 0;
    }
  }
  return count;
}

}  // namespace

TEST(ScaleOut, TwoHundredViewersBehindAProxyAreOneToTheHost) {
  Host host;
  host.serve();
  host.publish("stream", KV_BGR24, KV_CODEC_H264);
  host.startSubmitting();
  TemporaryFolder folder;
  auto const port = freePort();
  Process proxy({"live555ProxyServer", "-V", "-t", "-p", std::to_string(port), host.url("stream")},
                folder.file("messages"));
  std::string const url = "rtsp://127.0.0.1:" + std::to_string(port) + "/proxyStream";
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  // The proxy listens before it knows the stream's tracks, and leaves whoever asks
  // too early without an answer for ever.
  while (contentOf(folder.file("messages")).find("added new") == std::string::npos) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << contentOf(folder.file("messages"));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::deque<RtspClient> viewers;
  for (int i = 0; i < 200; ++i) {
    ASSERT_TRUE(viewers.emplace_back(port).play(url)) << "viewer " << i;
  }
  for (auto& viewer : viewers) {
    EXPECT_TRUE(viewer.receivesAPicture());
  }
  EXPECT_EQ(connectionsOn(host.port()), 1);
  EXPECT_GE(connectionsOn(port), 200);
}
