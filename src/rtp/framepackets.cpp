#include "rtp/framepackets.h"

#include <algorithm>

#include "rtp/bigendian.h"

namespace kavo::impl {

namespace {

// writev's structures are not const, though nothing is written through them.
iovec piece(std::uint8_t const* bytes, std::size_t size) { return {const_cast<std::uint8_t*>(bytes), size}; }

}  // namespace

void FramePackets::begin(RtpHeader const& header) {
  m_Header = header;
  m_Bytes = m_Largest = 0;
  m_Headers.clear();
  m_Packets.clear();
  for (Interleaved& onChannel : m_Interleaved) {
    onChannel.channel = -1;
  }
}

void FramePackets::add(std::span<std::uint8_t const> payloadHeader, std::span<std::uint8_t const> payload,
                       bool marker) {
  constexpr std::uint8_t version = 2 << 6;
  std::size_t const headerSize = rtpHeaderSize + payloadHeader.size();
  std::size_t const size = headerSize + payload.size();
  auto const sequence = static_cast<std::uint16_t>(m_Header.sequence + m_Packets.size());
  m_Packets.push_back({m_Headers.size(), headerSize, payload, size});
  m_Headers.push_back(version);
  m_Headers.push_back(static_cast<std::uint8_t>(m_Header.payloadType | (marker ? 0x80 : 0)));
  appendNumber(m_Headers, sequence, 2);
  appendNumber(m_Headers, m_Header.timestamp, 4);
  appendNumber(m_Headers, m_Header.ssrc, 4);
  m_Headers.insert(m_Headers.end(), payloadHeader.begin(), payloadHeader.end());
  m_Bytes += size;
  m_Largest = std::max(m_Largest, size);
}

void FramePackets::end() {
  m_Datagrams.clear();
  for (Packet const& packet : m_Packets) {
    m_Datagrams.push_back(piece(m_Headers.data() + packet.header, packet.headerSize));
    m_Datagrams.push_back(piece(packet.payload.data(), packet.payload.size()));
  }
}

std::span<iovec const> FramePackets::interleaved(std::uint8_t channel) {
  constexpr int fewViewers = 4;
  auto const find = [this](int wanted) { return std::ranges::find(m_Interleaved, wanted, &Interleaved::channel); };
  auto found = find(channel);
  if (found == m_Interleaved.end()) {
    auto const free = find(-1);
    found = free != m_Interleaved.end() ? free : m_Interleaved.emplace(free);
    addPieces(*found, channel);
    found->channel = channel;
    found->uses = 0;
  }
  if (++found->uses == fewViewers + 1) {
    makeContiguous(*found);
  }
  return found->pieces;
}

void FramePackets::addPieces(Interleaved& onChannel, std::uint8_t channel) const {
  onChannel.pieces.clear();
  onChannel.headers.clear();
  onChannel.headers.reserve(count() * interleavedHeaderSize);
  for (std::size_t packet = 0; packet < count(); ++packet) {
    onChannel.pieces.push_back(piece(onChannel.headers.data() + onChannel.headers.size(), interleavedHeaderSize));
    onChannel.headers.push_back('$');
    onChannel.headers.push_back(channel);
    appendNumber(onChannel.headers, static_cast<std::uint32_t>(size(packet)), 2);
    onChannel.pieces.push_back(m_Datagrams[datagramPieces * packet]);
    onChannel.pieces.push_back(m_Datagrams[datagramPieces * packet + 1]);
  }
}

void FramePackets::makeContiguous(Interleaved& onChannel) {
  onChannel.copy.clear();
  for (iovec const& part : onChannel.pieces) {
    auto const* const begin = static_cast<std::uint8_t const*>(part.iov_base);
    onChannel.copy.insert(onChannel.copy.end(), begin, begin + part.iov_len);
  }
  onChannel.pieces.assign(1, piece(onChannel.copy.data(), onChannel.copy.size()));
}

}  // namespace kavo::impl
