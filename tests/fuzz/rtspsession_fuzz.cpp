// Sequences of what clients send, over real sockets, against the library that serves in this
// process: several connections, both transports, RTCP, abrupt ends, sessions removed, init and
// exit in between. After each batch of them good viewers have to get whole frames, descriptors
// have to be as few as before, and nothing may be leaked. A sequence that fails is written to
// a file by libFuzzer, and runs again when it is given that file.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sanitizer/lsan_interface.h>
#include <sys/socket.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <kavo/stream.hpp>
#include <optional>
#include <string>

#include "base/uniquefd.h"
#include "fuzz/rtspscript.h"
#include "system/rtspclient.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using kavo::impl::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr int batch = 200;  // sequences
constexpr std::chrono::seconds longestWait{20};

[[noreturn]] void fail(char const* what) {
  std::fprintf(stderr, "rtspsession: %s\n", what);
  std::abort();
}

// The host: one JPEG and one H.264 stream, small ones.
class Host {
 public:
  Host() { start(); }

  std::uint32_t port() const { return m_Port; }
  std::string url(std::size_t stream) const {
    return "rtsp://127.0.0.1:" + std::to_string(m_Port) + "/" + names[stream % streams];
  }

  void submit() {
    for (auto& stream : m_Streams) {
      stream->submit(m_Picture.data(), m_Picture.size());
    }
  }

  void remove(std::size_t stream) { create(stream % streams); }

  void restart() {
    m_Streams = {};
    m_Sessions = {};
    m_Server.reset();
    start();
  }

 private:
  static constexpr int size = 64;  // pixels
  static constexpr std::size_t streams = 2;
  static constexpr char const* names[] = {"one", "two"};

  void start() {
    for (int attempt = 0; !m_Server; ++attempt) {
      m_Port = freePort();
      try {
        m_Server.emplace(static_cast<std::uint16_t>(m_Port));
      } catch (kavo::Error const&) {
        if (attempt == 20) {
          throw;
        }
      }
    }
    create(0);
    create(1);
  }

  void create(std::size_t at) {
    m_Streams.at(at).reset();
    m_Sessions.at(at).reset();
    m_Sessions.at(at).emplace(m_Server->createSession(names[at]));
    kavo::VideoOptions video;
    video.width = video.height = size;
    video.format = kavo::PixelFormat::Yuv420p;
    video.codec = at == 0 ? kavo::Codec::Jpeg : kavo::Codec::H264;
    m_Streams.at(at).emplace(m_Sessions.at(at)->createStream(video));
  }

  std::uint32_t m_Port = 0;
  std::optional<kavo::Server> m_Server;
  std::array<std::optional<kavo::Session>, streams> m_Sessions;
  std::array<std::optional<kavo::Stream>, streams> m_Streams;
  std::array<std::uint8_t, std::size_t{size} * size * 3 / 2> m_Picture{};
};

// A connection of the sequence, and what the server has said on it.
class Client {
 public:
  bool isOpen() const { return m_Socket.get() >= 0; }
  std::string const& session() const { return m_Session; }

  void send(std::uint32_t port, std::string const& bytes) {
    if (!isOpen()) {
      open(port);
    }
    (void)::send(m_Socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    await(bytes.find("\r\n\r\n") != std::string::npos ? 5 : 0);
  }

  // Takes what has come; waits for something if asked to.
  void await(int milliseconds) {
    pollfd readable{m_Socket.get(), POLLIN, 0};
    while (isOpen() && poll(&readable, 1, milliseconds) > 0) {
      char block[16384];
      ssize_t const size = recv(m_Socket.get(), block, sizeof block, MSG_DONTWAIT);
      if (size <= 0) {
        m_Socket = UniqueFd();
        return;
      }
      note(std::string_view(block, static_cast<std::size_t>(size)));
      milliseconds = 0;
    }
  }

  void sendReport(std::string const& bytes) const {
    auto const address = loopback(static_cast<std::uint32_t>(m_ServerPort + 1));
    (void)sendto(m_Udp.get(), bytes.data(), bytes.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr const*>(&address),
                 sizeof address);
  }

  std::string ports() {
    if (m_Udp.get() < 0) {
      m_Udp = UniqueFd(socket(AF_INET, SOCK_DGRAM, 0));
      auto any = loopback(0);
      socklen_t size = sizeof any;
      bind(m_Udp.get(), reinterpret_cast<sockaddr const*>(&any), size);
      getsockname(m_Udp.get(), reinterpret_cast<sockaddr*>(&any), &size);
      m_Port = ntohs(any.sin_port);
    }
    return std::to_string(m_Port) + "-" + std::to_string(m_Port);  // reports leave from where frames arrive
  }

  void finish() { shutdown(m_Socket.get(), SHUT_WR); }
  void vanish() {
    linger const none{1, 0};
    setsockopt(m_Socket.get(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    m_Socket = UniqueFd();
  }

 private:
  static sockaddr_in loopback(std::uint32_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
  }

  void open(std::uint32_t port) {
    m_Socket = UniqueFd(socket(AF_INET, SOCK_STREAM, 0));
    auto const address = loopback(port);
    if (connect(m_Socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
      fail("the server does not listen");
    }
  }

  void note(std::string_view said) {
    auto const valueOf = [&](std::string_view name) {
      auto const at = said.find(name);
      auto const from = at == std::string_view::npos ? said.size() : at + name.size();
      return std::string(said.substr(from, said.find_first_of(";-\r\n", from) - from));
    };
    if (auto const session = valueOf("Session: "); !session.empty()) {
      m_Session = session;
    }
    if (auto const port = valueOf("server_port="); !port.empty()) {
      m_ServerPort = std::atoi(port.c_str());
    }
  }

  UniqueFd m_Socket;
  UniqueFd m_Udp;
  int m_Port = 0;
  int m_ServerPort = 0;
  std::string m_Session = "none";
};

std::string filledIn(std::string text, Host const& host, Client& client, Client const& other) {
  auto const fill = [&](char const* name, std::string const& value) {
    for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size())) {
      text.replace(at, 3, value);
    }
  };
  fill("{U}", host.url(0));
  fill("{V}", host.url(1));
  fill("{S}", client.session());
  fill("{O}", other.session());
  if (text.find("{P}") != std::string::npos) {
    fill("{P}", client.ports());
  }
  return text;
}

void run(Script const& script, Host& host) {
  std::array<Client, 4> clients;
  for (Step const& step : script) {
    Client& client = clients.at(step.connection);
    switch (step.kind) {
      case Step::Kind::Send:
        client.send(host.port(),
                    filledIn(step.bytes, host, client, clients.at((step.connection + 1) % clients.size())));
        break;
      case Step::Kind::Datagram:
        client.sendReport(step.bytes);
        break;
      case Step::Kind::Close:
        client.vanish();
        break;
      case Step::Kind::Finish:
        client.finish();
        break;
      case Step::Kind::Read:
        client.await(2);
        break;
      case Step::Kind::Submit:
        host.submit();
        break;
      case Step::Kind::Remove:
        host.remove(step.connection);
        break;
      case Step::Kind::Restart:
        host.restart();
        break;
    }
  }
}

std::size_t descriptors() {
  return static_cast<std::size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator{}));
}

template <class Condition>
void insist(Condition const& condition, char const* fault) {
  for (auto const begin = Clock::now(); !condition();) {
    if (Clock::now() - begin > longestWait) {
      fail(fault);
    }
  }
}

// A viewer of each stream and transport that does everything right.
void watch(Host& host) {
  for (std::size_t i = 0; i < 4; ++i) {
    std::optional<RtspClient> viewer;
    auto const joins = [&] {
      viewer.emplace(host.port(), false, 0, 50);
      return i < 2 ? viewer->play(host.url(i)) : viewer->playOverUdp(host.url(i));
    };
    auto const sees = [&] {
      for (int frames = 0; frames < 3; ++frames) {  // a whole one lies between two
        host.submit();
      }
      return viewer->receivesAFrame();
    };
    insist(joins, "a good viewer was not let in");
    insist(sees, "a good viewer got no frame");
    viewer->request("TEARDOWN", host.url(i));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Host host;
  static std::size_t const fewest = [] {
    watch(host);
    host.restart();
    return descriptors();
  }();
  static int sequences = 0;
  run(parseScript(std::string(data, data + size)), host);
  if (++sequences % batch == 0) {
    watch(host);
    host.restart();  // what is still set up over UDP would time out in a minute
    insist([] { return descriptors() <= fewest + 2; }, "descriptors are left open");
    if (__lsan_do_recoverable_leak_check() != 0) {
      fail("memory is leaked");
    }
  }
  return 0;
}

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t maxSize,
                                               unsigned seed) {
  std::mt19937 random(seed);
  auto script = parseScript(std::string(data, data + size));
  for (auto changes = 1 + random() % 4; changes > 0; --changes) {
    mutate(script, random, LLVMFuzzerMutate);
  }
  auto const text = textOf(script);
  std::size_t const length = std::min(text.size(), maxSize);
  std::memcpy(data, text.data(), length);
  return length;
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(std::uint8_t const* one, std::size_t oneSize,
                                                 std::uint8_t const* other, std::size_t otherSize, std::uint8_t* out,
                                                 std::size_t maxSize, unsigned seed) {
  std::mt19937 random(seed);
  auto const text = textOf(crossOver(parseScript(std::string(one, one + oneSize)),
                                     parseScript(std::string(other, other + otherSize)), random));
  std::size_t const length = std::min(text.size(), maxSize);
  std::memcpy(out, text.data(), length);
  return length;
}
