// The RTP packets of one frame, the same for all viewers. Stores the headers; the payloads
// stay in the frame's own memory. Any thread, one at a time.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace kavo::impl {

// The fields of the fixed RTP header (RFC 3550, 5.1).
struct RtpHeader {
  std::uint8_t payloadType;
  std::uint16_t sequence;  // of the first packet
  std::uint32_t timestamp;
  std::uint32_t ssrc;
};

class FramePackets {
 public:
  static constexpr std::size_t rtpHeaderSize = 12;
  // '$', channel and length before each packet on an RTSP connection (RFC 2326, 10.12).
  static constexpr std::size_t interleavedHeaderSize = 4;
  // Pieces of each packet in datagrams().
  static constexpr std::size_t datagramPieces = 2;

  // Starts a new frame. Keeps the capacity of earlier ones.
  void begin(RtpHeader const& header);
  // Adds the next packet: copies the header of the payload format, but not the payload.
  void add(std::span<std::uint8_t const> payloadHeader, std::span<std::uint8_t const> payload, bool marker);
  // Call after the last packet.
  void end();

  RtpHeader const& header() const { return m_Header; }
  std::size_t count() const { return m_Packets.size(); }
  // The bytes of one RTP packet, of all together, and of the largest.
  std::size_t size(std::size_t packet) const { return m_Packets[packet].size; }
  std::size_t bytes() const { return m_Bytes; }
  std::size_t largest() const { return m_Largest; }
  // The bytes of all packets on an RTSP connection.
  std::size_t interleavedBytes() const { return m_Bytes + count() * interleavedHeaderSize; }

  // All packets, two pieces each: header and payload. Valid after end().
  std::span<iovec const> datagrams() const { return m_Datagrams; }
  // All packets as sent on the channel of an RTSP connection. The same bytes may be split into
  // pieces differently from call to call.
  std::span<iovec const> interleaved(std::uint8_t channel);

 private:
  struct Packet {
    std::size_t header;  // position in m_Headers
    std::size_t headerSize;
    std::span<std::uint8_t const> payload;
    std::size_t size;
  };
  // The packets for one channel. If many viewers use it, they get one contiguous copy, because
  // a system call takes microseconds longer for many pieces.
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
  std::vector<Interleaved> m_Interleaved;  // channel -1: left from earlier frames
};

}  // namespace kavo::impl
