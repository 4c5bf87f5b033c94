#include "rtp/framepackets.h"

#include <algorithm>

namespace kavo::impl {

namespace {

void append(std::vector<std::uint8_t>& bytes, std::uint32_t number, int size) {
  for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
    bytes.push_back(static_cast<std::uint8_t>(number >> shift));
  }
}

// writev's structures are not const, though nothing is written through them.
iovec piece(std::uint8_t const* bytes, std::size_t size) { return {const_cast<std::uint8_t*>(bytes), size}; }

}  // namespace

void FramePackets::begin(RtpHeader const& header) {
  m_Header = header;
  m_Bytes = m_Largest = 0;
  m_Headers.clear();
  m_Packets.clear();
  m_Datagrams.clear();
  m_Interleaved.clear();
  m_Channel = -1;
}

void FramePackets::add(std::span<std::uint8_t const> payloadHeader, std::span<std::uint8_t const> payload,
                       bool marker) {
  constexpr std::uint8_t version = 2 << 6;
  std::size_t const headerSize = rtpHeaderSize + payloadHeader.size();
  std::size_t const size = headerSize + payload.size();
  auto const sequence = static_cast<std::uint16_t>(m_Header.sequence + m_Packets.size());
  m_Packets.push_back({m_Headers.size(), headerSize, payload, size});
  m_Headers.push_back('$');
  m_Headers.push_back(0);
  append(m_Headers, static_cast<std::uint32_t>(size), 2);
  m_Headers.push_back(version);
  m_Headers.push_back(static_cast<std::uint8_t>(m_Header.payloadType | (marker ? 0x80 : 0)));
  append(m_Headers, sequence, 2);
  append(m_Headers, m_Header.timestamp, 4);
  append(m_Headers, m_Header.ssrc, 4);
  m_Headers.insert(m_Headers.end(), payloadHeader.begin(), payloadHeader.end());
  m_Bytes += size;
  m_Largest = std::max(m_Largest, size);
}

std::span<iovec const> FramePackets::datagrams() {
  if (m_Datagrams.empty()) {
    for (Packet const& packet : m_Packets) {
      m_Datagrams.push_back(piece(m_Headers.data() + packet.header + interleavedHeaderSize, packet.headerSize));
      m_Datagrams.push_back(piece(packet.payload.data(), packet.payload.size()));
    }
  }
  return m_Datagrams;
}

std::span<iovec const> FramePackets::interleaved(std::uint8_t channel) {
  if (m_Interleaved.empty()) {
    for (Packet const& packet : m_Packets) {
      m_Interleaved.push_back(piece(m_Headers.data() + packet.header, interleavedHeaderSize + packet.headerSize));
      m_Interleaved.push_back(piece(packet.payload.data(), packet.payload.size()));
    }
  }
  if (m_Channel != channel) {
    m_Channel = channel;
    for (Packet const& packet : m_Packets) {
      m_Headers[packet.header + 1] = channel;
    }
  }
  return m_Interleaved;
}

}  // namespace kavo::impl
