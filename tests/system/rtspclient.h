// An RTSP client that does exactly what a test asks for, right or wrong.
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
  struct Packet {
    int channel = -1;  // -1: no packet
    std::vector<std::uint8_t> bytes;
  };

  // Connects to 127.0.0.1 or ::1; connected() returns whether that worked. receiveBuffer is in
  // bytes; 0 is the system's default. All functions wait at most until the limit.
  explicit RtspClient(std::uint32_t port, bool ipv6 = false, int receiveBuffer = 0, int limitMilliseconds = 20000);
  ~RtspClient();
  RtspClient(RtspClient const&) = delete;
  RtspClient& operator=(RtspClient const&) = delete;

  bool connected() const { return m_Socket >= 0; }
  void send(std::string const& bytes);
  // Sends a request (each header ends in CRLF) and waits for its response.
  // Drops interleaved packets that precede it.
  Response request(std::string const& method, std::string const& url, std::string const& headers = "");
  // Sends DESCRIBE (optionally), SETUP over TCP and PLAY.
  bool play(std::string const& url, bool describe = true);
  // Sends DESCRIBE, SETUP for two UDP ports of this client, and PLAY.
  bool playOverUdp(std::string const& url);
  // Sends only SETUP.
  Response setUpOverUdp(std::string const& url);
  // Closes the TCP connection; the UDP sockets stay open.
  void closeConnection();
  // The next SETUP begins another session on the same connection.
  void forgetSession() { m_Session.clear(); }
  std::string const& session() const { return m_Session; }

  // Sends RTCP on the channel, or over UDP to the server's RTCP port.
  void sendRtcp(std::vector<std::uint8_t> const& packet, int channel = 1);
  // Sends a receiver report without a report block: a keep-alive.
  void sendReport(int channel = 1) { sendRtcp({0x80, 201, 0, 1, 0, 0, 0, 9}, channel); }
  // Sends one byte of TCP urgent data.
  void sendUrgentByte();
  // Sends a datagram to the server's RTCP port from another socket.
  void sendFromElsewhere(std::vector<std::uint8_t> const& packet, int times);
  // The next packet, interleaved or over UDP. Channel 0 is RTP, 1 is RTCP.
  Packet packet();
  // Whether a packet has arrived.
  bool hasPacket() const;
  // The type of the NAL unit in the next RTP packet; -1 if none arrives.
  int nextNalType();
  // Reads packets until one complete frame has arrived, from one RTP marker to the next.
  bool receivesAFrame();
  // Whether a BYE arrives. Skips everything before it.
  bool receivesBye();
  // The number of interleaved packets that request() has dropped.
  int dropped() const { return m_Dropped; }
  // Whether the server closes the connection while this client reads, or while it only
  // sends these bytes again and again.
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
