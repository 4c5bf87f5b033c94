// A process that runs out of descriptors, and requests that the server does not support.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <deque>

#include "system/host.h"
#include "system/rtspclient.h"
#include "system/surroundings.h"

namespace {

double cpuSeconds() { return static_cast<double>(std::clock()) / CLOCKS_PER_SEC; }

}  // namespace

TEST(Connections, ALoopOutOfDescriptorsRestsAndComesBack) {
  std::uint32_t const statusPort = freePort();
  Variable const status("KAVO_STREAM_STATUS", "127.0.0.1:" + std::to_string(statusPort));
  Host host;
  host.serveLive("stream");
  RtspClient viewer(host.port());
  ASSERT_TRUE(viewer.play(host.url("stream")));
  DescriptorLimit const limit(64);
  std::deque<RtspClient> stayed;  // so that the server releases nothing meanwhile
  for (std::uint32_t const port : {host.port(), statusPort}) {
    SCOPED_TRACE(port);
    std::vector<int> files;
    for (int file; (file = dup(0)) >= 0;) {
      files.push_back(file);
    }
    auto const release = [&files](std::size_t count) {
      for (; count > 0; --count) {
        close(files.back());
        files.pop_back();
      }
    };
    release(2);
    EXPECT_TRUE(stayed.emplace_back(host.port()).play(host.url("stream"))) << "with the last descriptor, at its end";
    release(1);
    auto& newcomer = stayed.emplace_back(port);
    ASSERT_TRUE(newcomer.connected());  // by the kernel: the connection waits in the backlog
    [[maybe_unused]] double const before = cpuSeconds();
    [[maybe_unused]] auto const begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
      EXPECT_TRUE(viewer.receivesAFrame());
    }
#ifndef KAVO_SANITIZED  // sanitizers multiply the CPU time of encoding
    double const elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    // A spinning loop takes a whole core; encoding and sending these frames takes a fraction of one.
    EXPECT_LT(cpuSeconds() - before, elapsed * 0.9);
#endif
    release(files.size());
    if (port == host.port()) {
      EXPECT_TRUE(newcomer.play(host.url("stream")) && newcomer.receivesAFrame());
    } else {
      EXPECT_EQ(newcomer.request("GET", "/").status, 400) << "no HTTP, but an answer";
    }
  }
}

// The last descriptors are taken by viewers. A newcomer over UDP needs two more, and there is nobody to evict.
TEST(Connections, AClientIsNotEvictedForItsOwnRequest) {
  Host host;
  {
    DescriptorLimit const limit(40);  // of which the library uses half, and four of these for itself
    host.serve();
  }
  host.publish("stream");
  host.startSubmitting();
  std::deque<RtspClient> viewers;
  for (int i = 0; i < 15; ++i) {
    ASSERT_TRUE(viewers.emplace_back(host.port()).play(host.url("stream"))) << i;
  }
  RtspClient newcomer(host.port());
  EXPECT_EQ(newcomer.setUpOverUdp(host.url("stream")).status, 503);
  EXPECT_TRUE(newcomer.play(host.url("stream"))) << "over TCP, which needs none";
  EXPECT_TRUE(viewers.front().receivesAFrame());
}

TEST(Connections, RequestsThatAreNotOfferedAreAnsweredWithAnError) {
  Host host;
  host.serveLive("stream");
  auto const url = host.url("stream");
  RtspClient client(host.port());
  for (auto const* method : {"REGISTER", "DEREGISTER", "ANNOUNCE", "RECORD", "REDIRECT", "GET", "POST", "NONSENSE"}) {
    auto const response = client.request(method, url, "Content-Length: 2\r\n\r\nx");
    EXPECT_EQ(response.status, 405) << method;
    EXPECT_NE(response.header("CSeq"), "") << method;
  }
  EXPECT_EQ(client.request("OPTIONS", url).status, 200);
  auto const unsupported = client.request("SETUP", url + "/track1", "Transport: RTP/AVP;multicast\r\n").text;
  EXPECT_EQ(unsupported.substr(0, unsupported.find("\r\n")), "RTSP/1.0 461 Unsupported Transport");
  EXPECT_EQ(client.request("SETUP", url + "/track1").status, 461);
  ASSERT_TRUE(client.play(url));
  EXPECT_EQ(client.request("SETUP", url + "/track1", RtspClient::overTcp).status, 455);
  EXPECT_TRUE(client.receivesAFrame());

  RtspClient tunnel(host.port());
  tunnel.send("GET /stream HTTP/1.0\r\nx-sessioncookie: abc\r\nAccept: application/x-rtsp-tunnelled\r\n\r\n");
  tunnel.send("POST /stream HTTP/1.0\r\nx-sessioncookie: abc\r\nContent-Length: 32767\r\n\r\n");
  EXPECT_TRUE(tunnel.isClosedWhileReading());
  RtspClient garbage(host.port());
  garbage.send(std::string(9000, 'x'));
  EXPECT_TRUE(garbage.isClosedWhileReading());
  EXPECT_TRUE(client.receivesAFrame());
}
