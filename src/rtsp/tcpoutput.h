// What is sent on one RTSP connection besides responses: pictures and reports,
// interleaved. Never blocks; a viewer that is behind loses whole pictures, never
// a part of one. Event-loop thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <utility>
#include <vector>

namespace kavo {

class TcpOutput : public std::enable_shared_from_this<TcpOutput> {
 public:
  using Clock = std::chrono::steady_clock;

  // A viewer who takes nothing for this time while something waits for it is given up.
  static constexpr std::chrono::seconds patience{10};

  // The socket is the connection's. waitForRoom says whether the owner is to
  // call flush() when the socket takes more.
  TcpOutput(int socket, std::function<void(bool)> waitForRoom);
  ~TcpOutput();
  TcpOutput(TcpOutput const&) = delete;
  TcpOutput& operator=(TcpOutput const&) = delete;

  // The output of the connection on the socket, if there is one.
  static std::shared_ptr<TcpOutput> of(int socket);

  // A whole picture, framed for the wire. False when the viewer lacks a key
  // picture from now on.
  bool sendPicture(std::span<std::uint8_t const> framed, bool keyPicture);
  // A report, framed; left out while the viewer is behind.
  void sendReport(std::span<std::uint8_t const> framed);

  // Whether a response can be sent now: it would not land inside a picture, and
  // there is room for the whole of it. If not, no further picture is let in until
  // flush() has found room.
  bool admitsResponse();

  void flush();
  // Ends with its connection: who still holds it sends nowhere.
  void close();
  // Whether the viewer has taken something since this was last asked.
  bool hasProgressed() { return std::exchange(m_Progressed, false); }
  bool isStalled() const { return isWaiting() && Clock::now() - m_LastProgress > patience; }

 private:
  bool isIdle() const { return m_Waiting.empty(); }
  bool isWaiting() const { return m_Held || !isIdle(); }
  void wait();
  void write(std::span<std::uint8_t const> framed);
  std::size_t sendNow(std::span<std::uint8_t const> bytes);

  // All of them in a list, which live555's sessions find theirs in by its socket.
  static TcpOutput* s_First;
  TcpOutput* m_Previous = nullptr;
  TcpOutput* m_Next;

  int m_Socket;
  std::function<void(bool)> m_WaitForRoom;
  std::vector<std::uint8_t> m_Waiting;  // at most the rest of one picture
  std::size_t m_Sent = 0;               // of m_Waiting
  Clock::time_point m_LastProgress = Clock::now();
  bool m_Progressed = false;
  bool m_LacksKey = false;
  bool m_Held = false;  // for a response
};

}  // namespace kavo
