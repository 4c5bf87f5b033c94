// What is sent on one RTSP connection besides responses: pictures and reports,
// interleaved. Never blocks; a viewer that is behind loses whole pictures, never
// a part of one. Event-loop thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace kavo {

// Packets as they go over the wire, all on one channel. The viewers who wait for them share them.
using FramedPackets = std::shared_ptr<std::vector<std::uint8_t> const>;

class InterleavedWriter : public std::enable_shared_from_this<InterleavedWriter> {
 public:
  using Clock = std::chrono::steady_clock;

  // A viewer who takes nothing for this time while something waits for it is given up.
  static constexpr std::chrono::seconds patience{10};
  // What has waited longer than this is not sent any more, unless it was begun.
  static constexpr std::chrono::milliseconds maxAge{500};
  // What may wait besides the picture that was begun.
  static constexpr std::size_t maxWaiting = std::size_t{1024} * 1024;

  // The socket is the connection's. waitForRoom says whether the owner is to
  // call flush() when the socket takes more.
  InterleavedWriter(int socket, std::function<void(bool)> waitForRoom);
  ~InterleavedWriter();
  InterleavedWriter(InterleavedWriter const&) = delete;
  InterleavedWriter& operator=(InterleavedWriter const&) = delete;

  // The output of the connection on the socket, if there is one.
  static std::shared_ptr<InterleavedWriter> of(int socket);

  // A whole picture. False when the viewer needs a key picture to go on with.
  // Pictures on other channels are other streams'.
  bool sendPicture(FramedPackets const& picture, bool keyPicture);
  // Left out while the viewer is behind.
  void sendReport(FramedPackets const& report);

  // Sends nothing more on the channel, but the end of what was begun.
  void forget(std::uint8_t channel);

  // Whether a response can be sent now: it would not land inside a picture, and
  // there is room for the whole of it. If not, it goes before the next picture.
  bool admitsResponse();

  void flush();
  // Ends with its connection: who still holds it sends nowhere.
  void close();
  // Whether the viewer has taken something since this was last asked.
  bool hasProgressed() { return std::exchange(m_Progressed, false); }
  bool isStalled() const { return m_WaitsForRoom && Clock::now() - m_LastProgress > patience; }

 private:
  struct Waiting {
    FramedPackets packets;
    Clock::time_point since;
  };

  std::size_t firstNotBegun() const { return m_Begun > 0 ? 1 : 0; }
  bool isBehind(FramedPackets const& next) const;
  void dropNotBegun(std::uint8_t channel);
  void write(FramedPackets const& packets);
  void waitForRoom();
  std::size_t sendNow(std::span<std::uint8_t const> bytes);

  // All of them in a list, which live555's sessions find theirs in by its socket.
  static InterleavedWriter* s_First;
  InterleavedWriter* m_Previous = nullptr;
  InterleavedWriter* m_Next;

  int m_Socket;
  std::function<void(bool)> m_WaitForRoom;
  std::vector<Waiting> m_Waiting;
  std::size_t m_Begun = 0;  // bytes of the first that were sent
  Clock::time_point m_LastProgress = Clock::now();
  bool m_Progressed = false;
  std::set<std::uint8_t> m_LackKey;  // channels
  bool m_WaitsForRoom = false;
  bool m_HeldForResponse = false;
};

}  // namespace kavo
