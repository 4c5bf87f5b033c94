// An RTSP client for tests and fuzzers in C++, and free ports.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

class RtspClient {
 public:
  struct Response {
    int status = 0;  // 0: no response
    std::string text;
    std::string header(std::string const& name) const;
  };

  // Connects to 127.0.0.1. All functions wait at most until the limit.
  explicit RtspClient(std::uint32_t port, int limitMilliseconds = 20000);
  ~RtspClient();
  RtspClient(RtspClient const&) = delete;
  RtspClient& operator=(RtspClient const&) = delete;

  // Sends a request (each header ends in CRLF) and waits for its response.
  Response request(std::string const& method, std::string const& url, std::string const& headers = "");
  // Sends SETUP over TCP and PLAY.
  bool play(std::string const& url);
  // Sends SETUP for two UDP ports of this client, and PLAY.
  bool playOverUdp(std::string const& url);
  // Reads packets until one complete frame has arrived, from one RTP marker to the next.
  bool receivesAFrame();

 private:
  bool fill(std::size_t bytes);
  std::vector<std::uint8_t> packet();

  int m_Socket;
  int m_Limit;
  int m_Udp[2] = {-1, -1};  // RTP, RTCP
  int m_CSeq = 0;
  std::string m_Session;
  std::string m_Buffer;
};

// ::1, or 127.0.0.1 as an IPv4-mapped address.
sockaddr_in6 loopback(bool ipv6, int port);

// A TCP port that is free on both address families; 0 if there is none.
std::uint32_t freePort();

// Calls start(port) with free ports until it returns true. Returns that port, or 0 after 20 attempts.
template <class Start>
std::uint32_t onFreePort(Start const& start) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (std::uint32_t const port = freePort(); start(port)) {
      return port;
    }
  }
  return 0;
}
