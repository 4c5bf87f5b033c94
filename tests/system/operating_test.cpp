// What operators see and set, independent of the host: the status and the policy file.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "system/host.h"
#include "system/rtspclient.h"

namespace {

using Json = nlohmann::json;

class Operating : public ::testing::Test {
 protected:
  void usePolicy(std::string const& text) { std::ofstream(m_PolicyFile) << text; }

  // The status server's whole response to a request.
  std::string answerTo(std::string const& request) const { return answerOf(m_StatusSocket, request, 60); }
  std::string get(std::string const& path) const {
    auto const answer = answerTo("GET " + path + " HTTP/1.1\r\nHost: localhost\r\n\r\n");
    return answer.substr(std::min(answer.find("\r\n\r\n"), answer.size()));
  }
  Json status() const { return Json::parse(get("/status.json"), nullptr, false); }
  Json stream(std::string const& name) const {
    auto const all = status();
    for (auto const& stream : all["streams"]) {
      if (stream["name"] == name) {
        return stream;
      }
    }
    return nullptr;
  }
  bool hasEvent(std::string const& kind, std::string const& text) const {
    auto const events = status()["events"];
    return std::any_of(events.begin(), events.end(), [&](auto const& event) {
      return event["kind"] == kind &&
             (event["address"].template get<std::string>() + ": " + event["text"].template get<std::string>())
                     .find(text) != std::string::npos;
    });
  }

  TemporaryFolder m_Folder;
  std::string const m_StatusSocket = m_Folder.file("status");
  std::string const m_PolicyFile = m_Folder.file("policy");
};

// A host with a status socket and a policy file.
class OperatingServer : public Operating {
 protected:
  Variable m_Status{"KAVO_STREAM_STATUS", m_StatusSocket};
  Variable m_Config{"KAVO_STREAM_CONFIG", m_PolicyFile};
  Host m_Host;
};

}  // namespace

TEST_F(OperatingServer, TheStatusTellsWhatBecameOfFramesAndViewers) {
  usePolicy("# nothing is set\n");
  m_Host.serve();
  auto const& jpeg = m_Host.publish("jpeg");
  auto record = jpeg.record;
  m_Host.publish("h264", KV_CODEC_H264);
  record.frame = jpeg.frame.data();
  for (int i = 0; i < 7; ++i) {
    EXPECT_EQ(m_Host.call(KV_SUBMIT_FRAME, record), KV_OK);
  }
  auto const unwatched = stream("jpeg");
  EXPECT_EQ(unwatched["offered"], 7);
  EXPECT_EQ(unwatched["unwatched"], 7);
  EXPECT_EQ(unwatched["encoded"], 0);
  EXPECT_TRUE(unwatched["newest_age_ms"].is_null());
  EXPECT_EQ(unwatched["width"], 320);

  RtspClient tcp(m_Host.port());
  RtspClient udp(m_Host.port());
  ASSERT_TRUE(tcp.play(m_Host.url("h264")) && udp.playOverUdp(m_Host.url("jpeg")));
  m_Host.startSubmitting();
  EXPECT_TRUE(tcp.receivesAFrame() && udp.receivesAFrame());
  udp.sendReport();
  EXPECT_EQ(udp.request("PAUSE", m_Host.url("jpeg")).status, 200);
  m_Host.stopSubmitting();
  auto const paused = stream("jpeg")["viewers"][0];
  EXPECT_EQ(paused["state"], "paused");
  EXPECT_EQ(paused["transport"], "udp");
  EXPECT_EQ(paused["address"].get<std::string>().substr(0, 10), "127.0.0.1:");
  EXPECT_GE(paused["frames_sent"], 1);
  EXPECT_GT(paused["bytes_sent"], 100 * paused["frames_sent"].get<int>());
  EXPECT_EQ(paused["max_packet"], 1400);
  auto const watched = stream("h264");
  EXPECT_EQ(watched["viewers"][0]["state"], "playing");
  EXPECT_EQ(watched["viewers"][0]["transport"], "tcp");
  EXPECT_GE(watched["key_frames_requested"], 1);
  EXPECT_EQ(watched["offered"], watched["encoded"].get<int>() + watched["skipped"].get<int>() +
                                    watched["unwatched"].get<int>() + watched["queue_full"].get<int>());
  EXPECT_EQ(watched["sent_frames"], watched["viewers"][0]["frames_sent"]);
  auto const before = status();
  EXPECT_EQ(before["sessions"], 2);
  EXPECT_EQ(before["port"], m_Host.port());
  EXPECT_EQ(before["pid"], getpid());
  EXPECT_LE(before["started"], before["time"]);

  EXPECT_EQ(tcp.request("TEARDOWN", m_Host.url("h264")).status, 200);
  EXPECT_EQ(stream("h264")["viewers"].size(), 0U);
  EXPECT_TRUE(hasEvent("joined", "tcp"));
  EXPECT_TRUE(hasEvent("paused", "127.0.0.1"));
  EXPECT_TRUE(hasEvent("left", "TEARDOWN"));
  auto const encoded = stream("h264")["encoded"];
  m_Host.startSubmitting();
  while (stream("h264")["unwatched"] < 20) {
  }
  m_Host.stopSubmitting();
  EXPECT_EQ(stream("h264")["encoded"], encoded) << "nothing is encoded after the last viewer has left";

  auto taken = sessionRecord("jpeg");
  EXPECT_EQ(m_Host.call(KV_CREATE_SESSION, taken), KV_NAME_IN_USE);
  EXPECT_TRUE(hasEvent("failed", "already in use"));
  EXPECT_EQ(status()["last_error"]["text"], "Session name already in use");
  EXPECT_GE(status()["last_error"]["time"], before["time"]);
  EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, record.handle, 8), KV_OK);
  EXPECT_TRUE(stream("jpeg").is_null());
  EXPECT_TRUE(hasEvent("left", "the host ended the session"));
  m_Host.exit();
  EXPECT_EQ(get("/status.json"), "");
  EXPECT_NE(access(m_StatusSocket.c_str(), F_OK), 0) << "the socket stays behind";
}

// KV_GET_STATUS answers before anything is submitted, and finds streams as a submit does.
TEST_F(OperatingServer, AHostAsksWhoWatches) {
  usePolicy("# nothing is set\n");
  m_Host.serve();
  auto& live = m_Host.publish("live", KV_CODEC_H264);
  kv_status_record record{};
  record.handle = live.record.handle;
  record.stream = live.record.stream;
  auto const ask = [&] {
    EXPECT_EQ(m_Host.call(KV_GET_STATUS, record), KV_OK);
    return record;
  };
  EXPECT_EQ(ask().viewers + record.wanted + record.offered, 0U);
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(m_Host.url("live")));
  EXPECT_EQ(ask().viewers, 1U);
  EXPECT_EQ(record.wanted, std::uint32_t{KV_WANTS_FRAME} | KV_WANTS_KEY_FRAME);
  m_Host.startSubmitting();
  EXPECT_TRUE(viewer.receivesAFrame());
  EXPECT_EQ(ask().wanted, std::uint32_t{KV_WANTS_FRAME});
  EXPECT_EQ(viewer.request("TEARDOWN", m_Host.url("live")).status, 200);
  m_Host.stopSubmitting();
  EXPECT_EQ(ask().viewers + record.wanted + record.failed, 0U);
  EXPECT_GT(record.sent_frames, 0U);
  EXPECT_GT(record.sent_bytes, 100 * record.sent_frames);
  EXPECT_GE(record.offered, record.encoded + record.unwatched);
  EXPECT_EQ(m_Host.call(KV_GET_STATUS, &record, 79), KV_INVALID_PARAMETER);
  EXPECT_EQ(m_Host.call(KV_GET_STATUS, nullptr, 80), KV_INVALID_PARAMETER);
  EXPECT_EQ(m_Host.call(KV_GET_STATUS - 1, &record, 80), KV_INVALID_PARAMETER);
  record.stream = &record;
  EXPECT_EQ(m_Host.call(KV_GET_STATUS, record), KV_UNKNOWN);
  record.handle = &record;
  EXPECT_EQ(m_Host.call(KV_GET_STATUS, record), KV_UNKNOWN);
  m_Host.exit();
  EXPECT_EQ(m_Host.call(KV_GET_STATUS, record), KV_UNKNOWN);
}

TEST_F(OperatingServer, OnlyWhatIsAskedForRightIsAnswered) {
  usePolicy("# nothing is set\n");
  m_Host.serveLive("Cam\xe9ra");
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.playOverUdp(m_Host.url("Cam\xe9ra")));
  struct stat found{};
  ASSERT_EQ(lstat(m_StatusSocket.c_str(), &found), 0);
  EXPECT_TRUE(S_ISSOCK(found.st_mode));
  EXPECT_EQ(found.st_mode & 0777, 0600U);
  std::string const host = "Host: localhost\r\n\r\n";
  struct {
    std::string request;
    char const* status;
  } const cases[] = {
      {"GET / HTTP/1.1\r\n" + host, "200"},
      {"HEAD /status.json?x HTTP/1.0\r\nhost: 127.0.0.1:9554\r\n\r\n", "200"},
      {"GET /metrics HTTP/1.1\r\nHost: [::1]\r\n\r\n", "200"},
      {"GET /nothing HTTP/1.1\r\n" + host, "404"},
      {"POST / HTTP/1.1\r\n" + host, "405"},
      {"GET / HTTP/1.1\r\nHost: example.com\r\n\r\n", "400"},
      {"GET / HTTP/1.1\r\nHost: 127.0.0.1.example.com\r\n\r\n", "400"},
      {"GET / HTTP/1.1\r\n\r\n", "400"},
      {"GET / RTSP/1.0\r\n" + host, "400"},
      {"nonsense\r\n\r\n", "400"},
      {std::string(9000, 'x'), "400"},
  };
  for (auto const& [request, wanted] : cases) {
    EXPECT_EQ(answerTo(request).substr(0, 13), std::string("HTTP/1.1 ") + wanted + " ") << request;
  }
  auto const head = answerTo(cases[1].request);
  EXPECT_EQ(head.find("\r\n\r\n") + 4, head.size()) << "a body that nobody asked for";
  // A name may be any bytes; the status is UTF-8.
  EXPECT_EQ(status()["streams"][0]["name"], "Cam\xef\xbf\xbdra");
  std::string const labels = "{port=\"" + std::to_string(m_Host.port()) + "\",stream=\"Cam\xef\xbf\xbdra\"";
  auto const metrics = get("/metrics");
  EXPECT_NE(metrics.find("# TYPE kavo_frames_sent_total counter\nkavo_frames_sent_total" + labels), std::string::npos)
      << metrics;
  EXPECT_NE(metrics.find("kavo_viewers" + labels + ",transport=\"udp\"} 1\n"), std::string::npos) << metrics;
  EXPECT_NE(get("/").find("<!doctype html>"), std::string::npos);
}

// Slow clients and crowds of them delay nobody: the status server limits their time and number.
TEST_F(OperatingServer, WhoeverAsksDelaysNoFrame) {
  usePolicy("# nothing is set\n");
  m_Host.serveLive("stream");
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(m_Host.url("stream")));
  std::vector<int> slow;
  for (int i = 0; i < 100; ++i) {
    slow.push_back(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    m_StatusSocket.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(connect(slow.back(), reinterpret_cast<sockaddr const*>(&address), sizeof address), 0);
    std::string const asked = i % 2 == 0 ? "GET / HT" : "GET / HTTP/1.1\r\nHost: localhost\r\n\r\n";
    (void)!send(slow.back(), asked.data(), asked.size(), MSG_NOSIGNAL);
  }
  for (int i = 0; i < 50; ++i) {
    EXPECT_TRUE(viewer.receivesAFrame());
  }
  while (status().is_discarded()) {  // until the slow clients have timed out
    EXPECT_TRUE(viewer.receivesAFrame());
  }
  for (int const socket : slow) {
    close(socket);
  }
}

TEST_F(Operating, WithoutAPlaceToAnswerTheHostServesAllTheSame) {
  for (auto const& address : {m_Folder.file("nowhere/%p"), std::string("nonsense"), std::string("127.0.0.1:0"),
                              std::string("192.0.2.1:9554")}) {
    Variable const status("KAVO_STREAM_STATUS", address);
    ::testing::internal::CaptureStderr();
    Host host;
    host.serveLive("stream");
    auto const said = ::testing::internal::GetCapturedStderr();
    auto const named = address.substr(0, address.find('%'));
    EXPECT_NE(said.find("KAVO_STREAM_STATUS=" + named), std::string::npos) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    RtspClient viewer(host.port());
    EXPECT_TRUE(viewer.play(host.url("stream")) && viewer.receivesAFrame());
  }
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
  }
  struct {
    std::function<void(char const*)> make;
    char const* reason;
  } const files[] = {
      {[](char const* name) { unlink(name); }, "cannot be read: No such file"},
      {[](char const* name) { mkdir(name, 0700); }, "regular file"},
      {[](char const* name) { rmdir(name), mkfifo(name, 0600); }, "regular file"},  // a FIFO that nobody writes to
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
  for (auto const* good :
       {"# nothing is set\n", "[server]\naddress = '0.0.0.0'\n[access]\nallow = ['192.168.1.0/24']\n",
        "[server]\naddress = '::'\n[access]\nallow = ['::1']\n"}) {
    usePolicy(good);
    SCOPED_TRACE(good);
    m_Host.serve();
    m_Host.exit();
  }
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
    RtspClient third(m_Host.port());  // evicts the one without a stream
    EXPECT_EQ(third.request("OPTIONS", m_Host.url("stream")).status, 200);
    EXPECT_TRUE(second.isClosedWhileReading());
  }
  m_Host.exit();
  usePolicy("[access]\nallow = ['192.0.2.0/24', '::/0']\n");
  m_Host.serveLive("stream");
  RtspClient refused(m_Host.port());
  EXPECT_TRUE(refused.isClosedWhileReading());
  RtspClient allowed(m_Host.port(), true);
  EXPECT_TRUE(allowed.play(m_Host.url("stream", "[::1]")) && allowed.receivesAFrame());
  EXPECT_TRUE(hasEvent("refused", "127.0.0.1: not allowed"));
  EXPECT_TRUE(hasEvent("refused", "too many sessions"));
  for (int i = 0; i < 20; ++i) {
    RtspClient again(m_Host.port());
    ASSERT_TRUE(again.isClosedWhileReading());
  }
  EXPECT_EQ(status()["refused"]["address"], 21);
  EXPECT_TRUE(hasEvent("refused", "not allowed from there (21 times)")) << "one line for them all";
}

// Threads submit to sessions that other threads remove, until the server ends. Each call returns a
// result, and frames arrive.
TEST_F(OperatingServer, StreamsEncodeInParallelWhileSessionsComeAndGo) {
  usePolicy("[encoding]\nparallel = true\n");
  m_Host.serveLive("steady");
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(m_Host.url("steady")));
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&, t] {
      std::string const name = "passing" + std::to_string(t);
      for (int round = 0; round < 5; ++round) {
        Host passing(m_Host.port());
        auto& stream = passing.publish(name, t == 0 ? KV_CODEC_H264 : KV_CODEC_MJPEG);
        passing.startSubmitting();
        RtspClient guest(m_Host.port());
        EXPECT_TRUE(guest.play(m_Host.url(name)) && guest.receivesAFrame());
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
  EXPECT_EQ(m_Host.failedSubmits(), 0);
  EXPECT_EQ(m_Host.call(KV_EXIT, nullptr, 0), KV_OK);  // while the host submits
  while (m_Host.failedSubmits() == 0) {
    std::this_thread::yield();
  }
}
