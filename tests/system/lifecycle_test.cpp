// Starting, stopping, unloading, and sessions that come and go while clients play.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <deque>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "system/host.h"
#include "system/rtspclient.h"

namespace {

// Holds a port on one address family only.
class HeldPort {
 public:
  explicit HeldPort(int family) : m_Socket(socket(family, SOCK_STREAM, 0)) {
    int const on = 1;
    sockaddr_in6 address{};  // begins with the fields of sockaddr_in
    address.sin6_family = static_cast<sa_family_t>(family);
    socklen_t size = family == AF_INET ? sizeof(sockaddr_in) : sizeof address;
    if (family == AF_INET6) {
      setsockopt(m_Socket, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    setsockopt(m_Socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    EXPECT_EQ(bind(m_Socket, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(m_Socket, 1), 0);
    getsockname(m_Socket, reinterpret_cast<sockaddr*>(&address), &size);
    m_Port = ntohs(address.sin6_port);
  }
  ~HeldPort() { close(m_Socket); }
  HeldPort(HeldPort const&) = delete;
  HeldPort& operator=(HeldPort const&) = delete;

  std::uint32_t port() const { return m_Port; }

 private:
  int m_Socket;
  std::uint32_t m_Port = 0;
};

}  // namespace

TEST(Lifecycle, APortHeldOnOneAddressFamilyIsRefused) {
  Host host;
  for (int const family : {AF_INET, AF_INET6}) {
    HeldPort const held(family);
    EXPECT_EQ(host.serveOn(held.port()), KV_RESOURCE_FAILURE) << "family " << family;
  }
  host.serve();
  Host second;
  EXPECT_EQ(second.call(KV_EXIT, nullptr, 0), KV_OK);  // the same library has one server in the process
  EXPECT_FALSE(RtspClient(host.port()).connected());
}

TEST(Lifecycle, APortGivenUpWithViewersIsTakenAgainAtOnce) {
  Host host;
  std::uint32_t port = 0;
  for (int round = 0; round < 20; ++round) {
    if (round == 0) {
      host.serve();
      port = host.port();
    } else {
      ASSERT_EQ(host.serveOn(port), KV_OK) << "round " << round;
    }
    host.publish("stream");
    host.startSubmitting();
    RtspClient overIpv4(port);
    RtspClient overIpv6(port, true);
    EXPECT_TRUE(overIpv4.play(host.url("stream")) && overIpv4.receivesAFrame()) << "round " << round;
    EXPECT_TRUE(overIpv6.play(host.url("stream", "[::1]")) && overIpv6.receivesAFrame()) << "round " << round;
    EXPECT_EQ(host.exit(), KV_OK);
  }
}

TEST(Lifecycle, UnloadingEndsEverything) {
  std::uint32_t port = 0;
  {
    Host host;
    host.serve();
    port = host.port();
    host.publish("stream");
    host.startSubmitting();
    RtspClient viewer(port);
    ASSERT_TRUE(viewer.play(host.url("stream")) && viewer.receivesAFrame());
  }
  EXPECT_FALSE(RtspClient(port).connected());
  EXPECT_FALSE(RtspClient(port, true).connected());
#ifndef KAVO_SANITIZED
  EXPECT_EQ(contentOf("/proc/self/maps").find("libkavo_stream"), std::string::npos);
#endif
}

#ifndef KAVO_SANITIZED  // ubsan needs descriptors itself
TEST(Lifecycle, AShortageAtLoadAndInitIsOverWithIt) {
  // One descriptor is enough to load the library, but not for its event loop.
  int const next = dup(0);
  close(next);
  std::optional<DescriptorLimit> limit(static_cast<rlim_t>(next) + 1);
  Host host;
  std::uint32_t port = 0;
  auto session = sessionRecord("stream");
  for (port = 20000; port < 20003; ++port) {
    EXPECT_EQ(host.call(KV_INIT, port), KV_RESOURCE_FAILURE);
  }
  EXPECT_EQ(host.call(KV_CREATE_SESSION, session), KV_NOT_STARTED);
  EXPECT_EQ(host.call(KV_EXIT, nullptr, 0), KV_OK);
  limit.reset();
  host.serveLive("stream");
  RtspClient viewer(host.port());
  EXPECT_TRUE(viewer.play(host.url("stream")) && viewer.receivesAFrame());
}
#endif

#ifndef KAVO_SANITIZED  // sanitizers use memory of their own
TEST(Lifecycle, AWatchedStreamTakesTheMemoryOfItsFrames) {
  for (int const codec : {KV_CODEC_MJPEG, KV_CODEC_H264}) {
    Host host;
    host.serve();
    std::deque<RtspClient> viewers;
    auto const watch = [&](int from, int to) {
      host.stopSubmitting();
      for (int i = from; i < to; ++i) {
        host.publish("stream" + std::to_string(i), codec, 64, 64);
      }
      host.startSubmitting();
      for (int i = from; i < to; ++i) {
        EXPECT_TRUE(viewers.emplace_back(host.port()).play(host.url("stream" + std::to_string(i))) &&
                    viewers.back().receivesAFrame());
      }
      auto const status = contentOf("/proc/self/status");
      return std::stoi(status.substr(status.find("VmSize:") + 7));
    };
    int const one = watch(0, 1);  // including what the process needs once: heaps of its threads
    // OpenH264 reserves 6200 kB of address space for scaling full HD, and never touches it.
    EXPECT_LT((watch(1, 21) - one) / 20, codec == KV_CODEC_H264 ? 3000 + 6200 : 3000) << "kB, codec " << codec;
  }
}
#endif

// Signals go to the host's own threads, and its handler for SIGPIPE stays.
TEST(Lifecycle, TheHostsSignalsAreLeftAlone) {
  struct sigaction handler{};
  handler.sa_handler = [](int) {};
  sigaction(SIGPIPE, &handler, nullptr);
  Host host;
  host.serve();
  struct sigaction after{};
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, handler.sa_handler);
  bool found = false;
  for (auto const& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    auto const blocked = [&] {
      auto const status = contentOf(thread.path().string() + "/status");
      return std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
    };
    if (contentOf(thread.path().string() + "/comm") == "kavo-rtsp\n") {
      found = true;
      // All signals except those that cannot be blocked and the C library's own two. A sanitizer
      // unblocks SIGSYS for moments.
      constexpr std::uint64_t wanted = 0xfffffffe7ffbfeff;
      for (auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
           (blocked() & wanted) != wanted;) {
        ASSERT_LT(std::chrono::steady_clock::now(), end) << "signals are not blocked";
      }
    }
  }
  EXPECT_TRUE(found);
  host.exit();
  sigaction(SIGPIPE, nullptr, &after);
  EXPECT_EQ(after.sa_handler, handler.sa_handler);
}

TEST(Lifecycle, AForkedChildLeavesTheServerAlone) {
  Host host;
  int status = -1;
  pid_t const daemon = fork();  // forked before the server starts: the child has a server of its own
  if (daemon == 0) {
    host.serveLive("stream");
    RtspClient viewer(host.port());
    bool const served = viewer.play(host.url("stream")) && viewer.receivesAFrame();
    host.exit();
    std::exit(served ? 0 : 1);
  }
  ASSERT_EQ(waitpid(daemon, &status, 0), daemon);
  EXPECT_EQ(status, 0);
  host.serve();
  auto const record = host.publish("stream").record;
  host.startSubmitting();
  RtspClient viewer(host.port());
  ASSERT_TRUE(viewer.play(host.url("stream")) && viewer.receivesAFrame());
  host.stopSubmitting();
  pid_t const child = fork();
  if (child == 0) {
    auto frame = record;
    std::uint32_t port = 20000;
    bool const refused = host.call(KV_SUBMIT_FRAME, frame) == KV_RESOURCE_FAILURE &&
                         host.call(KV_INIT, port) == KV_RESOURCE_FAILURE && host.call(KV_EXIT, nullptr, 0) == KV_OK;
    std::exit(refused ? 0 : 1);  // runs static destructors
  }
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  host.startSubmitting();
  EXPECT_TRUE(viewer.receivesAFrame());
  RtspClient later(host.port());
  EXPECT_TRUE(later.play(host.url("stream")) && later.receivesAFrame());
}

TEST(Lifecycle, AnEmptySessionIsDescribedAndServesNothing) {
  Host host;
  host.serve();
  auto session = sessionRecord("empty");
  ASSERT_EQ(host.call(KV_CREATE_SESSION, session), KV_OK);
  RtspClient client(host.port());
  EXPECT_EQ(client.request("DESCRIBE", host.url("empty")).status, 404);
  EXPECT_GE(client.request("SETUP", host.url("empty") + "/track1", RtspClient::overTcp).status, 400);
  EXPECT_EQ(host.call(KV_REMOVE_SESSION, session.handle, 8), KV_OK);
}

// Threads submit to sessions that other threads remove, until the server ends. Each call returns a
// result, and frames arrive.
TEST(Lifecycle, StreamsEncodeInParallelWhileSessionsComeAndGo) {
  TemporaryFolder const folder;
  Variable const policy("KAVO_STREAM_CONFIG", folder.file("policy"));
  std::ofstream(folder.file("policy")) << "[encoding]\nparallel = true\n";
  Host host;
  host.serveLive("steady");
  RtspClient viewer(host.port());
  ASSERT_TRUE(viewer.play(host.url("steady")));
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::string const name = "passing" + std::to_string(t);
      for (int round = 0; round < 5; ++round) {
        Host passing(host.port());
        auto& stream = passing.publish(name, t == 0 ? KV_CODEC_H264 : KV_CODEC_MJPEG);
        passing.startSubmitting();
        RtspClient guest(host.port());
        EXPECT_TRUE(guest.play(host.url(name)) && guest.receivesAFrame());
        EXPECT_EQ(passing.failedSubmits(), 0);
        EXPECT_EQ(passing.call(KV_REMOVE_SESSION, stream.record.handle, 8), KV_OK);  // while it submits
        passing.stopSubmitting();
        EXPECT_EQ(passing.call(KV_SUBMIT_FRAME, stream.record), KV_UNKNOWN);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(viewer.receivesAFrame());
  EXPECT_EQ(host.failedSubmits(), 0);
  EXPECT_EQ(host.call(KV_EXIT, nullptr, 0), KV_OK);  // while the host submits
  while (host.failedSubmits() == 0) {
    std::this_thread::yield();
  }
}
