// An RTSP client that does exactly what a test asks for, right or wrong.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <vector>

class RtspClient {
 public:
  struct Response {
    int status = 0;  // 0: none came
    std::string text;
    std::string header(std::string const& name) const;
  };
  struct Packet {
    int channel = -1;  // -1: none came
    std::vector<std::uint8_t> bytes;
  };

  // Connects to 127.0.0.1 or ::1, with a receive buffer of that many bytes if
  // given; connected(): whether it worked. What does not come within the limit
  // does not come at all.
  explicit RtspClient(std::uint32_t port, bool ipv6 = false, int receiveBuffer = 0, int limitMilliseconds = 20000);
  ~RtspClient();
  RtspClient(RtspClient const&) = delete;
  RtspClient& operator=(RtspClient const&) = delete;

  bool connected() const { return m_Socket >= 0; }
  void send(std::string const& bytes);
  // Sends a request (headers each ending in CRLF) and waits for its response;
  // interleaved packets that come before it are dropped.
  Response request(std::string const& method, std::string const& url, std::string const& headers = "");
  // DESCRIBE (if asked for), SETUP over TCP and PLAY.
  bool play(std::string const& url, bool describe = true);
  // The same over UDP, to two ports of this client.
  bool playOverUdp(std::string const& url);
  // SETUP alone.
  Response setUpOverUdp(std::string const& url);
  // Its sockets for UDP stay.
  void closeConnection();
  // Begins a session of its own on the same connection with the next SETUP.
  void forgetSession() { m_Session.clear(); }
  std::string const& session() const { return m_Session; }

  // Sends RTCP: on the channel, or over UDP to the server's RTCP port.
  void sendRtcp(std::vector<std::uint8_t> const& packet, int channel = 1);
  // A receiver's report without a report block: a keep-alive.
  void sendReport(int channel = 1) { sendRtcp({0x80, 201, 0, 1, 0, 0, 0, 9}, channel); }
  // One byte of TCP's urgent data.
  void sendUrgentByte();
  // UDP to the server's RTCP port from a socket of nobody's.
  void sendFromElsewhere(std::vector<std::uint8_t> const& packet, int times);
  // The next packet: interleaved (channel 0: RTP, 1: RTCP), or from those ports.
  Packet packet();
  // Whether one has arrived.
  bool hasPacket() const;
  // The type of the NAL unit that the next RTP packet carries; -1 if none came.
  int nextNalType();
  // Reads packets until one whole frame has come: from one RTP marker to the next.
  bool receivesAFrame();
  // Whether a BYE comes: everything before is skipped.
  bool receivesBye();
  // Interleaved packets that came before responses.
  int dropped() const { return m_Dropped; }
  // Whether the server ends the connection: while this client reads, and while it
  // only sends these bytes again and again.
  bool isClosedWhileReading();
  bool isClosedWhileSending(std::string const& bytes);

  static constexpr char const* overTcp = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";

 private:
  bool fill(std::size_t bytes);
  bool sendToServer(int socket, std::vector<std::uint8_t> const& packet) const;
  Packet datagram();

  int m_Socket = -1;
  bool m_Ipv6 = false;
  int m_Limit;
  int m_Udp[2] = {-1, -1};  // RTP, RTCP
  int m_ServerPort = 0;
  int m_CSeq = 0;
  int m_Dropped = 0;
  std::string m_Session;
  std::string m_Buffer;
};

// ::1, or 127.0.0.1 as sockets of IPv6 write it.
sockaddr_in6 loopback(bool ipv6, int port);

// A TCP port that nobody listens on, on either address family; 0 if there is none.
std::uint32_t freePort();

// Calls start() with free ports until it returns true, and returns that port; 0 if it never does.
template <class Start>
std::uint32_t onFreePort(Start const& start) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (std::uint32_t const port = freePort(); start(port)) {
      return port;
    }
  }
  return 0;
}
