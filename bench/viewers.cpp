// bench_viewers PORT STREAMS VIEWERS tcp|udp SECONDS [CRAWL]
//
// Joins VIEWERS viewers, spread over the streams, prints a line when all play, and counts for
// SECONDS what arrives. Prints, as JSON, complete frames, lost packets, and the time from pushing
// a frame to the arrival of its last packet. Before that, twenty more join one viewer, one after
// the other; "join" is the time from PLAY to their first complete frame.
// With CRAWL, two more watch over TCP and are not counted: one reads nothing, and one CRAWL bytes
// a second. If KAVO_BENCH_SERVER is set, the server has that address, and each viewer its own,
// from 10.80.0.1 on.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

std::int64_t nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000000000LL + now.tv_nsec;
}

[[noreturn]] void fail(char const* what) {
  std::perror(what);
  std::exit(1);
}

struct Counts {
  long frames = 0;
  long damaged = 0;
  long lost = 0;
  std::vector<double> latencies;  // microseconds
  std::vector<double> joins;      // milliseconds from PLAY to the first whole frame
};

class Viewer {
 public:
  Viewer(int port, int stream, bool tcp, Counts& counts) : m_Tcp(tcp), m_Counts(counts) {
    static std::uint32_t number = 0;
    ++number;
    char const* const server = std::getenv("KAVO_BENCH_SERVER");
    m_Address = server == nullptr ? INADDR_LOOPBACK : 0x0A500000 + number / 250 * 256 + number % 250 + 1;
    m_Url = std::string("rtsp://") + (server == nullptr ? "127.0.0.1" : server) + ":" + std::to_string(port) + "/" +
            std::to_string(stream);
    open(m_Rtsp, SOCK_STREAM);
    auto address = at(INADDR_LOOPBACK, port);
    if (server != nullptr) {
      inet_pton(AF_INET, server, &address.sin_addr);
    }
    if (connect(m_Rtsp, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) {
      fail("connect");
    }
    std::string transport = "RTP/AVP/TCP;unicast;interleaved=0-1";
    if (!tcp) {
      int const first = open(m_Rtp, SOCK_DGRAM);
      int const second = open(m_Rtcp, SOCK_DGRAM);
      transport = "RTP/AVP;unicast;client_port=" + std::to_string(first) + "-" + std::to_string(second);
    }
    auto const description = request("DESCRIBE", m_Url, "Accept: application/sdp\r\n");
    auto const at = description.find("a=control:", description.find("m=video"));
    auto control = description.substr(at + 10, description.find_first_of("\r\n", at) - at - 10);
    if (control.find("://") == std::string::npos) {
      control = m_Url + "/" + control;
    }
    auto const setup = request("SETUP", control, "Transport: " + transport + "\r\n");
    auto const session = setup.find("Session: ");
    m_Session = setup.substr(session + 9, setup.find_first_of(";\r\n", session) - session - 9);
    m_Played = nanoseconds();
    request("PLAY", m_Url, "Session: " + m_Session + "\r\n");
  }
  ~Viewer() {
    for (int const socket : {m_Rtsp, m_Rtp, m_Rtcp}) {
      if (socket >= 0) {
        close(socket);
      }
    }
  }
  Viewer(Viewer const&) = delete;
  Viewer& operator=(Viewer const&) = delete;

  int mediaSocket() const { return m_Tcp ? m_Rtsp : m_Rtp; }

  // Reads a little and discards it.
  void crawl(std::size_t bytes) {
    std::vector<char> block(bytes);
    (void)!recv(m_Rtsp, block.data(), block.size(), MSG_DONTWAIT);
  }

  // Reads everything that has arrived.
  void read() {
    char block[65536];
    ssize_t size;
    while ((size = recv(mediaSocket(), block, sizeof block, MSG_DONTWAIT)) > 0) {
      if (m_Tcp) {
        m_Buffer.append(block, static_cast<std::size_t>(size));
        takeInterleaved();
      } else {
        packet(reinterpret_cast<std::uint8_t const*>(block), static_cast<std::size_t>(size));
      }
    }
    if (size == 0 && m_Tcp) {
      std::fprintf(stderr, "a viewer was disconnected\n");
      std::exit(1);
    }
  }

  bool hasFrame() const { return m_Joined; }
  void startCounting() { m_Counting = true; }

 private:
  static sockaddr_in at(std::uint32_t host, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(host);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
  }

  // Binds to this viewer's address and returns the port.
  int open(int& result, int type) const {
    result = socket(AF_INET, type, 0);
    auto address = at(m_Address, 0);
    socklen_t size = sizeof address;
    if (bind(result, reinterpret_cast<sockaddr*>(&address), size) != 0) {
      fail("bind");
    }
    getsockname(result, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
  }

  std::string request(std::string const& method, std::string const& url, std::string const& headers) {
    std::string const text =
        method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_CSeq) + "\r\n" + headers + "\r\n";
    send(m_Rtsp, text.data(), text.size(), MSG_NOSIGNAL);
    std::size_t end;
    while ((end = m_Buffer.find("\r\n\r\n")) == std::string::npos) {
      receive();
    }
    std::size_t size = end + 4;
    auto const length = m_Buffer.find("Content-Length: ");
    if (length < end) {
      size += static_cast<std::size_t>(std::atol(m_Buffer.c_str() + length + 16));
    }
    while (m_Buffer.size() < size) {
      receive();
    }
    std::string const response = m_Buffer.substr(0, size);
    m_Buffer.erase(0, size);
    auto const status = response.find("RTSP/1.0 200");
    if (status == std::string::npos) {
      std::fprintf(stderr, "%s failed: %s\n", method.c_str(), response.c_str());
      std::exit(1);
    }
    return response;
  }

  void receive() {
    char block[4096];
    ssize_t const size = recv(m_Rtsp, block, sizeof block, 0);
    if (size <= 0) {
      fail("recv");
    }
    m_Buffer.append(block, static_cast<std::size_t>(size));
  }

  void takeInterleaved() {
    std::size_t at = 0;
    while (m_Buffer.size() - at >= 4) {
      auto const* bytes = reinterpret_cast<std::uint8_t const*>(m_Buffer.data()) + at;
      std::size_t const size = bytes[2] * 256U + bytes[3];
      if (m_Buffer.size() - at < 4 + size) {
        break;
      }
      if (bytes[1] == 0) {
        packet(bytes + 4, size);
      }
      at += 4 + size;
    }
    m_Buffer.erase(0, at);
  }

  void packet(std::uint8_t const* bytes, std::size_t size) {
    auto const sequence = static_cast<std::uint16_t>(bytes[2] << 8 | bytes[3]);
    if (m_Sequence >= 0 && sequence != static_cast<std::uint16_t>(m_Sequence + 1)) {
      m_Whole = false;
      if (m_Counting) {
        m_Counts.lost += static_cast<std::uint16_t>(sequence - m_Sequence - 1);
      }
    }
    m_Sequence = sequence;
    // Looks only at the end of a frame, which may be split between its last two packets.
    constexpr std::size_t headers = 12 + 8;
    if (size > headers) {
      std::size_t const tail = std::min<std::size_t>(size - headers, 64);
      m_End.append(reinterpret_cast<char const*>(bytes) + size - tail, tail);
    }
    if ((bytes[1] & 0x80) != 0) {
      frameEnds();
    }
    m_End.erase(0, m_End.size() - std::min<std::size_t>(m_End.size(), 64));
  }

  void frameEnds() {
    if (m_Counting) {
      (m_Whole ? m_Counts.frames : m_Counts.damaged) += 1;
      if (auto const at = m_End.rfind("KAVO"); at != std::string::npos && m_End.size() >= at + 23) {
        m_Counts.latencies.push_back(static_cast<double>(nanoseconds() - std::atoll(m_End.substr(at + 4, 19).c_str())) /
                                     1e3);
      }
    } else if (m_Whole && !m_Joined) {
      m_Counts.joins.push_back(static_cast<double>(nanoseconds() - m_Played) / 1e6);
    }
    m_Joined = m_Joined || m_Whole;
    m_Whole = true;
  }

  bool m_Tcp;
  Counts& m_Counts;
  std::uint32_t m_Address = 0;
  std::string m_Url;
  std::string m_Session;
  std::string m_Buffer;
  std::string m_End;  // the last bytes received
  int m_Rtsp = -1;
  int m_Rtp = -1;
  int m_Rtcp = -1;
  int m_CSeq = 0;
  int m_Sequence = -1;
  bool m_Whole = true;
  bool m_Joined = false;
  bool m_Counting = false;
  std::int64_t m_Played = 0;
};

class Crowd {
 public:
  explicit Crowd(int epoll) : m_Epoll(epoll) {}

  void add(std::unique_ptr<Viewer> viewer) {
    epoll_event event{.events = EPOLLIN, .data = {.ptr = viewer.get()}};
    epoll_ctl(m_Epoll, EPOLL_CTL_ADD, viewer->mediaSocket(), &event);
    m_Viewers.push_back(std::move(viewer));
  }

  void addSlow(std::unique_ptr<Viewer> stalled, std::unique_ptr<Viewer> crawling, double bytesPerSecond) {
    m_Stalled = std::move(stalled);
    m_Crawling = std::move(crawling);
    m_CrawlRate = bytesPerSecond;
    m_LastCrawl = nanoseconds();
  }

  void readFor(std::int64_t duration) {
    auto const end = nanoseconds() + duration;
    while (nanoseconds() < end) {
      epoll_event events[256];
      int const count = epoll_wait(m_Epoll, events, 256, 5);
      for (int i = 0; i < count; ++i) {
        static_cast<Viewer*>(events[i].data.ptr)->read();
      }
      crawl();
    }
  }

  std::vector<std::unique_ptr<Viewer>> const& viewers() const { return m_Viewers; }

 private:
  void crawl() {
    constexpr std::int64_t step = 10000000;
    if (m_Crawling != nullptr && nanoseconds() - m_LastCrawl >= step) {
      m_Crawling->crawl(static_cast<std::size_t>(m_CrawlRate * 1e-9 * step));
      m_LastCrawl += step;
    }
  }

  int m_Epoll;
  std::vector<std::unique_ptr<Viewer>> m_Viewers;
  std::unique_ptr<Viewer> m_Stalled;
  std::unique_ptr<Viewer> m_Crawling;
  double m_CrawlRate = 0;
  std::int64_t m_LastCrawl = 0;
};

double percentile(std::vector<double>& values, double fraction) {
  if (values.empty()) {
    return -1;
  }
  auto const at = values.begin() + static_cast<std::ptrdiff_t>(fraction * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

}  // namespace

// Milliseconds from PLAY to the first complete frame, at twenty different moments between two frames.
std::vector<double> joinsOf(Crowd& crowd, int port, bool tcp) {
  Counts counts;
  for (int i = 0; i < 20; ++i) {
    crowd.readFor(47000000);
    Viewer viewer(port, 0, tcp, counts);
    auto const limit = nanoseconds() + 2000000000;
    while (!viewer.hasFrame() && nanoseconds() < limit) {
      viewer.read();
    }
  }
  return counts.joins;
}

int main(int argc, char** argv) {
  if (argc != 6 && argc != 7) {
    std::fprintf(stderr, "usage: bench_viewers PORT STREAMS VIEWERS tcp|udp SECONDS [CRAWL]\n");
    return 2;
  }
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  int const port = std::atoi(argv[1]);
  int const streams = std::atoi(argv[2]);
  int const count = std::atoi(argv[3]);
  bool const tcp = std::string(argv[4]) == "tcp";
  Counts counts;
  Crowd crowd(epoll_create1(0));
  for (int i = 0; i < count; ++i) {
    crowd.add(std::make_unique<Viewer>(port, i % streams, tcp, counts));
    crowd.readFor(1000000);
  }
  for (int i = 0; i < 300 && !std::all_of(
                                 crowd.viewers().begin(), crowd.viewers().end(),
                                 [](auto const& viewer) { return viewer->hasFrame(); });
       ++i) {
    crowd.readFor(100000000);
  }
  Counts uncounted;
  if (argc == 7) {
    crowd.addSlow(std::make_unique<Viewer>(port, 0, true, uncounted),
                  std::make_unique<Viewer>(port, 0, true, uncounted), std::atof(argv[6]));
  }
  crowd.readFor(argc == 7 ? 3000000000 : 500000000);  // until their buffers are full
  auto joins = argc == 6 && count == 1 ? joinsOf(crowd, port, tcp) : std::vector<double>();
  for (auto const& viewer : crowd.viewers()) {
    viewer->startCounting();
  }
  std::printf("playing\n");
  std::fflush(stdout);
  crowd.readFor(static_cast<std::int64_t>(std::atof(argv[5]) * 1e9));
  std::printf(
      "{\"frames\": %ld, \"damaged\": %ld, \"lost\": %ld, \"p50\": %.1f, \"p99\": %.1f, \"worst\": %.1f, "
      "\"join\": %.2f}\n",
      counts.frames, counts.damaged, counts.lost, percentile(counts.latencies, 0.5), percentile(counts.latencies, 0.99),
      percentile(counts.latencies, 1), percentile(joins, 0.5));
  std::fflush(stdout);
  std::_Exit(0);
}
