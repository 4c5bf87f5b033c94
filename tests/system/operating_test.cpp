// What operators set and see beside the host: the status page and the policy file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "status/statusreader.h"
#include "system/host.h"
#include "system/player.h"
#include "system/rtspclient.h"

namespace {

class Operating : public ::testing::Test {
 protected:
  void usePolicy(std::string const& text) { std::ofstream(m_PolicyFile) << text; }

  kv_status_stream const* stream(std::string const& name) {
    m_Read = readStatus(m_StatusFile);
    auto const* const found =
        std::find_if(std::begin(m_Read->streams), std::end(m_Read->streams),
                     [&](auto const& record) { return record.codec != 0 && name == record.name; });
    return found != std::end(m_Read->streams) ? found : nullptr;
  }
  // The only one of its transport.
  kv_status_viewer const* viewer(kv_status_transport transport) {
    m_Read = readStatus(m_StatusFile);
    auto const* const found = std::find_if(
        std::begin(m_Read->viewers), std::end(m_Read->viewers),
        [&](auto const& record) { return record.state != KV_STATUS_NOBODY && record.transport == transport; });
    return found != std::end(m_Read->viewers) ? found : nullptr;
  }
  bool hasEvent(kv_status_event_kind kind, std::string const& text) {
    m_Read = readStatus(m_StatusFile);
    return std::any_of(std::begin(m_Read->events), std::end(m_Read->events), [&](auto const& event) {
      return event.number > 0 && event.kind == kind && std::string(event.text).find(text) != std::string::npos;
    });
  }

  TemporaryFolder m_Folder;
  std::string const m_StatusFile = m_Folder.file("status");
  std::string const m_PolicyFile = m_Folder.file("policy");
  std::unique_ptr<kv_status_page> m_Read;
};

// With both files.
class OperatingServer : public Operating {
 protected:
  Variable m_Status{"KAVO_STREAM_STATUS", m_StatusFile};
  Variable m_Config{"KAVO_STREAM_CONFIG", m_PolicyFile};
  Host m_Host;
};

}  // namespace

TEST_F(OperatingServer, ThePageTellsWhatBecameOfFramesAndViewers) {
  usePolicy("# nothing is set\n");
  m_Host.serve();
  auto record = m_Host.publish("jpeg").record;
  m_Host.publish("h264", KV_BGR24, KV_CODEC_H264);
  auto const frame = testFrame(KV_BGR24, 320, 240);
  record.frame = frame.data();
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(m_Host.call(KV_SUBMIT_FRAME, record), KV_OK);
  }
  auto const* const unwatched = stream("jpeg");
  ASSERT_NE(unwatched, nullptr);
  EXPECT_EQ(unwatched->offered, 7U);
  EXPECT_EQ(unwatched->dropped_unwatched, 7U);
  EXPECT_EQ(unwatched->encoded, 0U);

  RtspClient tcp(m_Host.port());
  RtspClient udp(m_Host.port());
  ASSERT_TRUE(tcp.play(m_Host.url("h264")) && udp.playOverUdp(m_Host.url("jpeg")));
  m_Host.startSubmitting();
  EXPECT_TRUE(tcp.receivesAFrame() && udp.receivesAFrame());
  udp.sendReport();
  EXPECT_EQ(udp.request("PAUSE", m_Host.url("jpeg")).status, 200);
  m_Host.stopSubmitting();
  auto const* const paused = viewer(KV_STATUS_UDP);
  ASSERT_NE(paused, nullptr);
  EXPECT_EQ(paused->state, std::uint32_t{KV_STATUS_PAUSED});
  EXPECT_STREQ(m_Read->streams[paused->stream].name, "jpeg");
  EXPECT_EQ(std::string(paused->address).substr(0, 10), "127.0.0.1:");
  EXPECT_GE(paused->frames_sent, 1U);
  EXPECT_GT(paused->bytes_sent, paused->frames_sent * 100);
  auto const* const playing = viewer(KV_STATUS_TCP);
  ASSERT_NE(playing, nullptr);
  EXPECT_EQ(playing->state, std::uint32_t{KV_STATUS_PLAYING});
  auto const* const watched = stream("h264");
  EXPECT_GE(watched->key_frames, 1U);
  EXPECT_EQ(watched->offered, watched->encoded + watched->skipped + watched->dropped_unwatched + watched->dropped_full);
  EXPECT_GE(watched->encoding, watched->encoded * 10);  // microseconds
  EXPECT_EQ(m_Read->process.sessions, 2U);
  EXPECT_EQ(m_Read->process.port, m_Host.port());

  EXPECT_EQ(tcp.request("TEARDOWN", m_Host.url("h264")).status, 200);
  EXPECT_EQ(viewer(KV_STATUS_TCP), nullptr);
  EXPECT_TRUE(hasEvent(KV_STATUS_JOINED, "tcp"));
  EXPECT_TRUE(hasEvent(KV_STATUS_PAUSE, "127.0.0.1"));
  EXPECT_TRUE(hasEvent(KV_STATUS_KEY_FRAME, ""));
  EXPECT_TRUE(hasEvent(KV_STATUS_LEFT, "TEARDOWN"));

  auto taken = sessionRecord("jpeg");
  EXPECT_EQ(m_Host.call(KV_CREATE_SESSION, taken), KV_NAME_IN_USE);
  EXPECT_TRUE(hasEvent(KV_STATUS_FAILED, "already in use"));
  EXPECT_EQ(m_Read->process.last_error.command, KV_CREATE_SESSION);
  EXPECT_EQ(m_Read->process.last_error.result, KV_NAME_IN_USE);
  EXPECT_STREQ(m_Read->process.last_error.text, "Session name already in use");
  EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, record.handle, 8), KV_OK);
  EXPECT_EQ(stream("jpeg"), nullptr);
  EXPECT_TRUE(hasEvent(KV_STATUS_LEFT, "the host ended the session"));
  m_Host.exit();
  EXPECT_EQ(readStatus(m_StatusFile)->process.port, 0U);
}

TEST_F(Operating, ThePageIsTheUsersAloneAndFollowsNoLink) {
  std::ofstream(m_Folder.file("precious")) << "precious";
  ASSERT_EQ(symlink(m_Folder.file("precious").c_str(), m_StatusFile.c_str()), 0);
  Variable const status("KAVO_STREAM_STATUS", m_StatusFile);
  Host host;
  host.serve();
  struct stat found{};
  ASSERT_EQ(lstat(m_StatusFile.c_str(), &found), 0);
  EXPECT_TRUE(S_ISREG(found.st_mode));
  EXPECT_EQ(found.st_mode & 0777, 0600U);
  EXPECT_EQ(contentOf(m_Folder.file("precious")), "precious");
}

TEST_F(Operating, WithoutAPlaceForThePageTheHostServesAllTheSame) {
  Variable const status("KAVO_STREAM_STATUS", m_Folder.file("nowhere/%p"));
  ::testing::internal::CaptureStderr();
  Host host;
  host.serveLive("stream");
  auto const said = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(said.find("nowhere/" + std::to_string(getpid())), std::string::npos) << said;
  RtspClient viewer(host.port());
  EXPECT_TRUE(viewer.play(host.url("stream")) && viewer.receivesAFrame());
}

TEST_F(OperatingServer, APolicyThatMakesNoSenseLetsNothingStart) {
  struct Case {
    char const* text;
    int line;
    char const* reason;
  };
  constexpr char const* address = "one IPv4 or IPv6 address";
  constexpr char const* range = "must be ranges such as";
  constexpr char const* text = "1 to 100 bytes";
  std::string const parts = "a" + std::string(5000, '.');
  Case const cases[] = {
      {"[server", 1, "table"},
      {"server = 1", 1, "must be a table"},
      {"[server]\nport = 1", 2, "unknown key 'server.port'"},
      {"[Server]", 1, "unknown key 'Server'"},
      {"[server]\naddress = 1", 2, "must be a quoted string"},
      {"[server]\naddress = ''", 2, text},
      {"[server]\naddress = 'localhost'", 2, address},
      {"[server]\naddress = '127.0.0.1/32'", 2, address},
      {"[server]\naddress = '::ffff:127.0.0.1'", 2, address},
      {"[server]\naddress = '::1'\naddress = '::1'", 3, ""},
      {"[server]\naddress = '127.0.0.1'\n[access]\nallow = ['192.168.1.0/24']", 4, "shuts out server.address"},
      {"[server]\nmax_connections = 0", 2, "from 1 to 1000000"},
      {"[server]\nmax_connections = '5'", 2, "whole number"},
      {"[server]\n\nmax_viewers = true", 3, "server.max_viewers must be"},
      {"[server]\nmax_viewers_per_address = 99999999999", 2, "per_address must be"},
      {"[access]\nrealm = 'a\"b'", 2, text},
      {"[access]\nusers = []", 2, "must be a table"},
      {"[access.users]", 1, "at least one user"},
      {"[access.users]\na = 5", 2, "password of 'a'"},
      {"[access.users]\n'a:b' = 'c'", 2, "colon"},
      {"[access.users]\na = \"b\\nc\"", 2, text},
      {"[access]\nallow = []", 2, "at least one address range"},
      {"[access]\nallow = [\n'127.0.0.1',\n'nowhere']", 4, range},
      {"[access]\nallow = ['127.0.0.1/8']", 2, range},
      {"[access]\nallow = ['::ffff:192.0.2.0/120']", 2, range},
      {"[delivery]\nmax_packet = 511", 2, "from 512 to 8900"},
      {"[delivery]\npace_mbit = -1", 2, "from 0 to 100000"},
      {"[encoding]\nparallel = 1", 2, "true or false"},
      {parts.c_str(), 1, "longer than"},
      {"\x80", 1, ""},
  };
  for (auto const& c : cases) {
    usePolicy(c.text);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(m_Host.serveOn(freePort()), KV_RESOURCE_FAILURE) << c.text;
    auto const said = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find(m_PolicyFile + ":" + std::to_string(c.line) + ": "), std::string::npos)
        << c.text << ": " << said;
    EXPECT_NE(said.find(c.reason), std::string::npos) << c.text << ": " << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    EXPECT_NE(said.find(readStatus(m_StatusFile)->process.last_error.text), std::string::npos) << said;
  }
  struct {
    std::function<void(char const*)> make;
    char const* reason;
  } const files[] = {
      {[](char const* name) { unlink(name); }, "cannot be read: No such file"},
      {[](char const* name) { mkdir(name, 0700); }, "regular file"},
      {[](char const* name) { rmdir(name), mkfifo(name, 0600); }, "regular file"},  // which nobody writes to
      {[](char const* name) { unlink(name), std::ofstream(name) << std::string(70000, '#'); }, "at most 64 kB"},
      {[](char const* name) { std::ofstream(name) << " \n"; }, "is empty"},
      {[](char const* name) { std::ofstream(name) << "[server]\naddress = '192.0.2.1'\n"; },
       "cannot listen on 192.0.2.1, port"},
  };
  for (auto const& [make, reason] : files) {
    make(m_PolicyFile.c_str());
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(m_Host.serveOn(freePort()), KV_RESOURCE_FAILURE) << reason;
    EXPECT_NE(::testing::internal::GetCapturedStderr().find(reason), std::string::npos) << reason;
  }
  usePolicy("# nothing is set\n");
  m_Host.serve();
}

TEST_F(OperatingServer, LimitsAndRangesAreKept) {
  auto const setUp = [&](RtspClient& client) {
    return client.request("SETUP", m_Host.url("stream") + "/track1", "Transport: RTP/AVP/TCP;unicast\r\n").status;
  };
  usePolicy("[server]\nmax_viewers_per_address = 1\n[delivery]\nmax_packet = 600\n");
  m_Host.serveLive("stream");
  {
    RtspClient ipv4(m_Host.port());
    RtspClient another(m_Host.port());
    RtspClient ipv6(m_Host.port(), true);
    ASSERT_TRUE(ipv4.play(m_Host.url("stream")));
    EXPECT_EQ(setUp(another), 453);
    EXPECT_EQ(setUp(ipv6), 200);
    for (int packets = 0; packets < 20; ++packets) {
      EXPECT_LE(ipv4.packet().bytes.size(), 600U);
    }
  }
  m_Host.exit();
  usePolicy("[server]\nmax_viewers = 1\nmax_connections = 2\naddress = '127.0.0.1'\n");
  m_Host.serveLive("stream");
  EXPECT_FALSE(RtspClient(m_Host.port(), true).connected());
  {
    RtspClient first(m_Host.port());
    RtspClient second(m_Host.port());
    ASSERT_TRUE(first.play(m_Host.url("stream")));
    EXPECT_EQ(setUp(second), 453);
    RtspClient third(m_Host.port());  // takes the place of the one without a stream
    EXPECT_EQ(third.request("OPTIONS", m_Host.url("stream")).status, 200);
    EXPECT_TRUE(second.isClosedWhileReading());
  }
  m_Host.exit();
  usePolicy("[access]\nallow = ['192.0.2.0/24', '::1']\n");
  m_Host.serveLive("stream");
  RtspClient refused(m_Host.port());
  EXPECT_TRUE(refused.isClosedWhileReading());
  RtspClient allowed(m_Host.port(), true);
  EXPECT_TRUE(allowed.play(m_Host.url("stream", "[::1]")) && allowed.receivesAFrame());
  EXPECT_TRUE(hasEvent(KV_STATUS_REFUSED, "not allowed"));
  EXPECT_TRUE(hasEvent(KV_STATUS_REFUSED, "too many sessions"));
}

// Threads submit to sessions that other threads remove, while the server ends and
// starts: each call gets a result, and frames come.
TEST_F(OperatingServer, StreamsEncodeInParallelWhileSessionsComeAndGo) {
  usePolicy("[encoding]\nparallel = true\n");
  m_Host.serveLive("steady");
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(m_Host.url("steady")));
  auto const frame = testFrame(KV_BGR24, 320, 240);
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::string const name = "passing" + std::to_string(t);
      for (int round = 0; round < 5; ++round) {
        auto session = sessionRecord(name);
        ASSERT_EQ(m_Host.call(KV_CREATE_SESSION, session), KV_OK);
        auto const video = videoRecord(KV_BGR24, t == 0 ? KV_CODEC_H264 : KV_CODEC_MJPEG, 320, 240);
        kv_stream_record stream{};
        stream.handle = session.handle;
        stream.video = &video;
        ASSERT_EQ(m_Host.call(KV_CREATE_STREAM, stream), KV_OK);
        RtspClient guest(m_Host.port());
        ASSERT_TRUE(guest.play(m_Host.url(name)));
        std::thread submitter([&, session, stream] {
          kv_frame_record record{};
          record.handle = session.handle;
          record.stream = stream.stream;
          record.frame = frame.data();
          int result = KV_OK;
          while (result == KV_OK) {
            result = m_Host.call(KV_SUBMIT_FRAME, record);
          }
          EXPECT_EQ(result, KV_UNKNOWN);
        });
        EXPECT_TRUE(guest.receivesAFrame());
        EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, session.handle, 8), KV_OK);
        submitter.join();
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_TRUE(viewer.receivesAFrame());
  EXPECT_EQ(m_Host.failedSubmits(), 0);
  EXPECT_EQ(m_Host.call(KV_EXIT, nullptr, 0), KV_OK);  // while the host submits
  while (m_Host.failedSubmits() == 0) {
    std::this_thread::yield();
  }
}
