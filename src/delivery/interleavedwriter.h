// What is sent on one RTSP connection besides responses: frames and reports,
// interleaved. Never blocks; a viewer that is behind loses whole frames, never
// a part of one. Event-loop thread.
#pragma once

#include <bitset>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "eventloop/timer.h"
#include "rtp/framepackets.h"

namespace kavo::impl {

// Packets as they go over the wire, all on one channel.
using InterleavedBytes = std::shared_ptr<std::vector<std::uint8_t> const>;

// One frame on one channel. It is sent from where its packets lie, until a viewer
// has to wait for it, or many want it: they share one copy. The kernel takes one
// piece in a microsecond less than the two of each packet.
class InterleavedFrame {
 public:
  static constexpr int fewViewers = 4;

  InterleavedFrame(FramePackets& packets, std::uint8_t channel) : m_Packets(&packets), m_Channel(channel) {}
  // The next frame on the channel. The copy's room is used again, unless somebody still waits for it.
  void begin(FramePackets& packets) {
    m_Packets = &packets;
    m_Viewers = 0;
    m_IsCopied = false;
  }

  std::uint8_t channel() const { return m_Channel; }
  std::span<iovec const> pieces();
  std::size_t size() const { return m_Packets->bytes() + m_Packets->count() * FramePackets::interleavedHeaderSize; }
  InterleavedBytes copy();

 private:
  FramePackets* m_Packets;
  std::uint8_t m_Channel;
  int m_Viewers = 0;
  bool m_IsCopied = false;
  std::shared_ptr<std::vector<std::uint8_t>> m_Copy;
  iovec m_CopyPiece{};
};

class InterleavedWriter {
 public:
  using Clock = std::chrono::steady_clock;

  // A viewer that takes nothing for this time while something waits for it is stalled.
  static constexpr std::chrono::seconds stallTimeout{10};
  // Frames that have waited longer are dropped, unless partly sent.
  static constexpr std::chrono::milliseconds maxAge{500};
  // Limit for frames waiting behind the one partly sent.
  static constexpr std::size_t maxWaiting = std::size_t{1024} * 1024;

  // The socket is the connection's. setWriteInterest says whether the owner is
  // to call flush() when the socket takes more.
  InterleavedWriter(TaskScheduler& scheduler, int socket, std::function<void(bool)> setWriteInterest);
  InterleavedWriter(InterleavedWriter const&) = delete;
  InterleavedWriter& operator=(InterleavedWriter const&) = delete;

  // False when the viewer is too far behind: what waits on the channel is dropped,
  // and the viewer needs a key frame to continue. A key frame is always accepted.
  bool sendFrame(InterleavedFrame& frame, bool keyFrame);
  // How many frames the last sendFrame() dropped that it had accepted before.
  std::size_t dropped() const { return m_Dropped; }
  // Comes after what waits; skipped if another one waits.
  void sendReport(std::span<std::uint8_t const> report, std::uint8_t channel);
  // Stops sending on the channel, except the rest of a frame partly sent.
  void cancel(std::uint8_t channel);

  // True when a response can be sent now: no frame is sent in part, and the
  // socket has room for the whole response. Otherwise holds frames back until it has.
  bool prepareForResponse();

  void flush();
  // The connection is gone: whatever is sent from now on is dropped.
  void close();

  // Whether something waits until the socket, or the path, takes it.
  bool isBlocked() const { return m_Blocked; }
  bool isStalled(Clock::time_point now) const;
  // Whether the channel's viewer has taken anything since the last call.
  bool takeProgress(std::uint8_t channel);

 private:
  struct Waiting {
    InterleavedBytes bytes;
    std::uint8_t channel;
    Clock::time_point since;
    bool cancelled = false;
  };

  std::size_t firstUnsent() const { return m_FrontOffset > 0 ? 1 : 0; }
  bool isBehind(InterleavedFrame const& next) const;
  std::size_t dropUnsent(std::uint8_t channel);
  template <class Bytes>
  void wait(Bytes const& bytes, std::uint8_t channel, std::size_t sent);
  void giveUp();
  bool hasRoom();
  void waitForSocket();
  void setWriteInterest(bool wanted);
  std::size_t write(std::span<iovec const> pieces, std::uint8_t channel);

  int m_Socket;
  bool m_Blocked = false;
  std::vector<Waiting> m_Waiting;
  std::size_t m_Dropped = 0;
  std::size_t m_FrontOffset = 0;  // bytes of the first that were sent
  std::function<void(bool)> m_SetWriteInterest;
  bool m_WriteInterest = false;
  Timer m_NextTry;  // when the path takes more
  bool m_ResponseWaits = false;
  Clock::time_point m_LastProgress = Clock::now();  // of what waits
  std::bitset<256> m_Progress;                      // channels
};

}  // namespace kavo::impl
