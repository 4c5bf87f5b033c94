// The RTP packets of one frame, the same for all viewers. Headers are written
// here; payloads stay where the frame lies. Any thread, one at a time.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kavo::impl {

// What the fixed headers of a frame's packets say (RFC 3550, 5.1).
struct RtpHeader {
  std::uint8_t payloadType;
  std::uint16_t sequence;  // of the first packet
  std::uint32_t timestamp;
  std::uint32_t ssrc;
};

class FramePackets {
 public:
  static constexpr std::size_t rtpHeaderSize = 12;
  // '$', channel and length, which precede each packet on an RTSP connection (RFC 2326, 10.12).
  static constexpr std::size_t interleavedHeaderSize = 4;
  // Pieces of a packet in datagrams().
  static constexpr std::size_t datagramPieces = 2;

  // Starts a new frame. Keeps the room of earlier ones.
  void begin(RtpHeader const& header);
  // The next packet: the payload format's header is copied, the payload is not.
  void add(std::span<std::uint8_t const> payloadHeader, std::span<std::uint8_t const> payload, bool marker);
  // After the last packet.
  void end();

  RtpHeader const& header() const { return m_Header; }
  std::size_t count() const { return m_Packets.size(); }
  // Bytes of one RTP packet, of all of them, and of the largest.
  std::size_t size(std::size_t packet) const { return m_Packets[packet].size; }
  std::size_t bytes() const { return m_Bytes; }
  std::size_t largest() const { return m_Largest; }
  // Bytes of all of them on an RTSP connection.
  std::size_t interleavedBytes() const { return m_Bytes + count() * interleavedHeaderSize; }

  // All packets, two pieces each: header and payload. After end().
  std::span<iovec const> datagrams() const { return m_Datagrams; }
  // All of them as they go over an RTSP connection on the channel. The pieces that several
  // calls return are not the same, their bytes are.
  std::span<iovec const> interleaved(std::uint8_t channel);

 private:
  struct Packet {
    std::size_t header;  // position in m_Headers
    std::size_t headerSize;
    std::span<std::uint8_t const> payload;
    std::size_t size;
  };
  // On one channel. Many viewers get one contiguous copy, since a system call takes
  // microseconds longer for many pieces.
  struct Interleaved {
    int channel = -1;
    int uses = 0;
    std::vector<std::uint8_t> headers;
    std::vector<std::uint8_t> copy;
    std::vector<iovec> pieces;
  };

  void addPieces(Interleaved& onChannel, std::uint8_t channel) const;
  static void makeContiguous(Interleaved& onChannel);

  RtpHeader m_Header{};
  std::size_t m_Bytes = 0;
  std::size_t m_Largest = 0;
  std::vector<std::uint8_t> m_Headers;
  std::vector<Packet> m_Packets;
  std::vector<iovec> m_Datagrams;
  std::vector<Interleaved> m_Interleaved;  // what is not of this frame has no channel
};

}  // namespace kavo::impl
