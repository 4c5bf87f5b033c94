// Runs scripts of what clients send, over real sockets, against the library in this process: several
// connections, both address families and transports, RTCP, a slow reader, abrupt ends, status requests;
// in between removed sessions, changed policies, init and exit, few descriptors, packets that the kernel
// refuses and clock jumps. After each batch, good viewers must get whole frames, no descriptor may be left open, and
// nothing may be leaked. libFuzzer writes a failing script to a file, and runs the file that it is given.
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <kavo/stream.hpp>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/uniquefd.h"
#include "freeport.h"
#include "fuzz/rtspscript.h"
#include "fuzz/scriptclient.h"

#if __has_feature(address_sanitizer)
#include <sanitizer/lsan_interface.h>
#else  // the thread sanitizer does not look for leaks
int __lsan_do_recoverable_leak_check() { return 0; }
#endif

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace {

using kavo::impl::UniqueFd;
using Clock = std::chrono::steady_clock;

constexpr int batch = 200;  // scripts
constexpr std::chrono::seconds longestWait{60};

// The error that the next g_Refusals calls that send packets fail with.
std::atomic<int> g_Refusal{0};
std::atomic<int> g_Refusals{0};

bool isRefused() {
  if (g_Refusals.load(std::memory_order_relaxed) <= 0 || g_Refusals.fetch_sub(1) <= 0) {
    return false;
  }
  errno = g_Refusal;
  return true;
}

// How far the monotonic clock of this process is ahead. It only increases.
std::atomic<std::int64_t> g_SecondsAhead{0};

// Whether the library finds a limit of descriptors that the four connections and the streams' ports exceed.
std::atomic<bool> g_HasFewDescriptors{false};

// Policies of an operator, from an empty one to one that lets hardly anybody watch. The server starts only
// with one of the first four; the others are written while it runs.
constexpr unsigned goodPolicies = 4;
constexpr char const* policies[] = {
    "# nothing is set\n",
    "[server]\nmax_connections = 2\nmax_viewers = 2\nmax_viewers_per_address = 1\n[delivery]\npace_mbit = 1\n",
    "[access]\nallow = ['::1', '127.0.0.1']\n[delivery]\nmax_packet = 600\n[encoding]\nparallel = true\n",
    "[access]\nrealm = 'r'\n[access.users]\na = 'b'\n'c d' = 'e'\n",
    "[server]\nmax_viewers = 'many'\n",
    "[access]\nallow = ['127.0.0.1/8']\n",
    "[access.users]\na = 5\n",
    "[server",
    "",
    "server = 1\n",
    "[server]\naddress = 5\n",
    "[server]\naddress = '127.0.0.1/8'\n",
    "[server]\naddress = ''\n",
    "[server]\naddress = '127.0.0.1'\n[access]\nallow = ['::1']\n",
    "[server]\nport = 1\n",
    "[access]\nallow = []\n",
    "[access]\nusers = {}\n",
    "[access.users]\n'a:b' = 'c'\n",
    "[encoding]\nparallel = 1\n",
};

// The host: an H.264 stream of small frames, and a stream of large encoded frames. Its second thread
// submits to a JPEG stream all the time, whatever the first thread does.
class Host {
 public:
  static constexpr std::size_t streams = 3;

  Host() {
    setenv("KAVO_STREAM_CONFIG", file("policy").c_str(), 1);
    setenv("KAVO_STREAM_STATUS", statusSocket().c_str(), 1);
    restart(0);
  }
  ~Host() { std::filesystem::remove_all(m_Folder); }

  std::uint32_t port() const { return m_Port; }
  std::string url(std::size_t stream) const {
    return "rtsp://127.0.0.1:" + std::to_string(m_Port) + "/" + names[stream % streams];
  }
  std::string statusSocket() const { return file("status"); }

  void submit() {
    m_Raw->submit(picture.data(), picture.size());
    auto const& frame = ++m_Submitted % 4 == 0 ? m_KeyFrame : m_InterFrame;
    m_Encoded->submit(frame.data(), frame.size());
  }

  // Removes the session and creates it again.
  void remove(std::size_t stream) {
    if (stream % streams == 0) {
      m_IsRemoved = true;
    } else {
      create(stream % streams);
    }
  }

  void setPolicy(unsigned number) const { std::ofstream(file("policy")) << policies[number % std::size(policies)]; }

  void restart(unsigned policy) {
    setPolicy(policy % goodPolicies);
    m_Raw.reset();
    m_Encoded.reset();
    m_Sessions = {};
    std::lock_guard const lock(m_Mutex);
    m_Server.reset();
    m_IsRemoved = false;
    g_HasFewDescriptors = policy % goodPolicies == 2;
    m_Port = startOnFreePort(m_Server);
    create(1);
    create(2);
  }

 private:
  static constexpr int size = 64;  // pixels
  static constexpr std::chrono::milliseconds framePeriod{1};
  static constexpr std::array<std::uint8_t, std::size_t{size} * size * 3 / 2> picture{};
  static constexpr char const* names[] = {"one", "two", "three"};

  static std::vector<std::uint8_t> large(std::vector<std::uint8_t> frame) {
    frame.resize(90000, 0x55);
    return frame;
  }

  std::string file(std::string const& name) const { return m_Folder + "/" + name; }

  void create(std::size_t at) {
    auto& session = m_Sessions.at(at);
    session.reset();
    session.emplace(m_Server->createSession(names[at]));
    if (at == 2) {
      m_Encoded.emplace(session->createEncodedStream({}));
      return;
    }
    kavo::VideoOptions video;
    video.width = video.height = size;
    m_Raw.emplace(session->createStream(video));
  }

  void submitAlways(std::stop_token const& stop) {
    std::optional<kavo::Session> session;
    while (!stop.stop_requested()) {
      try {
        std::unique_lock lock(m_Mutex);
        session.reset();
        session.emplace(m_Server->createSession(names[0]));
        auto stream = session->createStream({.width = size, .height = size, .codec = kavo::Codec::Jpeg});
        lock.unlock();
        while (!m_IsRemoved.exchange(false) && !stop.stop_requested()) {
          stream.submit(picture.data(), picture.size());
          std::this_thread::sleep_for(framePeriod);
        }
      } catch (kavo::Error const&) {  // the server has ended
      }
      std::this_thread::sleep_for(framePeriod);
    }
  }

  std::uint32_t m_Port = 0;
  std::string const m_Folder = [] {
    char name[] = "/tmp/kavo-fuzz-XXXXXX";
    return std::string(mkdtemp(name));
  }();
  std::optional<kavo::Server> m_Server;
  std::array<std::optional<kavo::Session>, streams> m_Sessions;
  std::optional<kavo::Stream> m_Raw;
  std::optional<kavo::EncodedStream> m_Encoded;
  std::vector<std::uint8_t> const m_KeyFrame =
      large({0, 0, 0, 1, 0x67, 0x64, 0, 0x1E, 0xAC, 0, 0, 1, 0x68, 0xEB, 0, 0, 1, 0x65, 0x88});
  std::vector<std::uint8_t> const m_InterFrame = large({0, 0, 1, 0x41, 0x9A});
  unsigned m_Submitted = 0;
  std::mutex m_Mutex;
  std::atomic<bool> m_IsRemoved = false;
  std::jthread const m_SecondThread{[this](std::stop_token const& stop) { submitAlways(stop); }};
};

std::string filledIn(std::string text, Host const& host, Client& client, Client const& other) {
  auto const fill = [&](std::string_view name, std::string const& value) {
    for (auto at = text.find(name); at != std::string::npos; at = text.find(name, at + value.size())) {
      text.replace(at, name.size(), value);
    }
  };
  fill("{U}", host.url(0));
  fill("{V}", host.url(1));
  fill("{W}", host.url(2));
  fill("{S}", client.session());
  fill("{O}", other.session());
  fill("{RR}", client.ssrc());
  fill("{LR}", client.lastReport());
  if (text.find("{P}") != std::string::npos) {
    fill("{P}", client.ports());
  }
  return text;
}

// Sends a request to the status server and reads only the beginning of the response.
void askForStatus(Host const& host, std::string const& bytes) {
  UniqueFd const socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  host.statusSocket().copy(address.sun_path, sizeof address.sun_path - 1);
  if (connect(socket.get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
      send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) >= 0) {
    char block[1000];
    pollfd readable{socket.get(), POLLIN, 0};
    if (poll(&readable, 1, 2) > 0) {
      (void)!read(socket.get(), block, sizeof block);
    }
  }
}

void take(Step const& step, Host& host, Client& client, Client const& other) {
  auto const bytes = filledIn(step.bytes, host, client, other);
  switch (step.kind) {
    case Step::Kind::Send:
      return client.send(host.port(), bytes);
    case Step::Kind::Datagram:
      return client.sendReport(bytes);
    case Step::Kind::Status:
      return askForStatus(host, bytes);
    case Step::Kind::Close:
      return client.vanish();
    case Step::Kind::Finish:
      return client.finish();
    case Step::Kind::Read:
      return client.await(2);
    case Step::Kind::Submit:
      return host.submit();
    case Step::Kind::Remove:
      return host.remove(step.connection);
    case Step::Kind::Policy:
      return host.setPolicy(step.connection + static_cast<unsigned>(bytes.size()));
    case Step::Kind::Restart:
      return host.restart(step.connection);
    case Step::Kind::Refuse:
      g_Refusal = std::array{EINVAL, EPERM, EMSGSIZE, ENOSYS}[step.connection];
      g_Refusals = 1 + static_cast<int>(bytes.size() % 4);
      return;
    case Step::Kind::Clock:
      g_SecondsAhead += 1 + 30 * step.connection;
  }
}

void run(Script const& script, Host& host) {
  Client clients[] = {Client(0), Client(1), Client(2), Client(3)};
  for (Step const& step : script) {
    take(step, host, clients[step.connection], clients[(step.connection + 1) % std::size(clients)]);
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

// Watches each stream over each transport with a viewer that makes no mistakes.
void watch(Host& host) {
  for (std::size_t i = 0; i < 2 * Host::streams; ++i) {
    std::optional<Client> viewer;
    auto const ask = [&](std::string const& method, std::string const& path, std::string const& header) {
      viewer->send(host.port(), method + " " + host.url(i) + path + " RTSP/1.0\r\nCSeq: 1\r\n" + header + "\r\n\r\n",
                   5000);
    };
    auto const joins = [&] {
      viewer.emplace(0U);
      ask("SETUP", "/track1",
          "Transport: RTP/AVP" + (i < Host::streams ? "/TCP;interleaved=0-1" : ";client_port=" + viewer->ports()));
      ask("PLAY", "", "Session: " + viewer->session());
      return viewer->isPlaying();
    };
    auto const sees = [&] {
      for (int frames = 0; frames < 3; ++frames) {
        host.submit();
      }
      viewer->await(50);
      return viewer->frames() >= 2;  // one is whole between two markers
    };
    insist(joins, "a good viewer was not let in");
    insist(sees, "a good viewer got no frame");
    ask("TEARDOWN", "", "Session: " + viewer->session());
  }
}

}  // namespace

// Replaces the C library's function in this process.
extern "C" int clock_gettime(clockid_t clock, timespec* now) {
  long const result = syscall(SYS_clock_gettime, clock, now);
  now->tv_sec += clock == CLOCK_MONOTONIC ? g_SecondsAhead.load(std::memory_order_relaxed) : 0;
  return static_cast<int>(result);
}

extern "C" int getrlimit(__rlimit_resource_t resource, rlimit* limit) noexcept {
  long const result = syscall(SYS_prlimit64, 0, resource, nullptr, limit);
  if (resource == RLIMIT_NOFILE && g_HasFewDescriptors) {
    limit->rlim_cur = 24;
  }
  return static_cast<int>(result);
}

extern "C" int sendmmsg(int socket, mmsghdr* messages, unsigned count, int flags) {
  return isRefused() ? -1 : static_cast<int>(syscall(SYS_sendmmsg, socket, messages, count, flags));
}

extern "C" ssize_t sendmsg(int socket, msghdr const* message, int flags) {
  return isRefused() ? -1 : syscall(SYS_sendmsg, socket, message, flags);
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static Host host;
  static std::size_t const fewest = [] {
    watch(host);
    host.restart(0);
    return descriptors();
  }();
  static int sequences = 0;
  run(parseScript(std::string(data, data + size)), host);
  g_Refusals = 0;
  if (++sequences % batch == 0) {
    host.restart(0);  // sessions that are set up over UDP would live on for a minute
    watch(host);
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
  return textOf(script).copy(reinterpret_cast<char*>(data), maxSize);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(std::uint8_t const* one, std::size_t oneSize,
                                                 std::uint8_t const* other, std::size_t otherSize, std::uint8_t* out,
                                                 std::size_t maxSize, unsigned seed) {
  std::mt19937 random(seed);
  auto const script = crossOver(parseScript(std::string(one, one + oneSize)),
                                parseScript(std::string(other, other + otherSize)), random);
  return textOf(script).copy(reinterpret_cast<char*>(out), maxSize);
}
