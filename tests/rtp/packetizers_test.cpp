// A reader written from the RFCs reassembles exactly what was packetized.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <numeric>
#include <random>

#include "rtp/jpegpacketizer.h"
#include "rtp/nalpacketizer.h"
#include "rtp/packets.h"

using namespace kavo::impl;
using namespace reassembly;

namespace {

constexpr std::size_t megabyte = 1000000;

// Frame sizes around the boundaries at which one more packet is needed, random sizes, and
// an occasional large one.
std::vector<std::size_t> sizesFor(std::size_t maxPacket, std::minstd_rand& random) {
  std::vector<std::size_t> sizes{1, 2, 3, 1 + random() % 5000, 1 + random() % 30000};
  for (std::size_t const multiple : {1U, 2U}) {
    for (std::size_t const overhead : {12U, 14U, 20U, 152U}) {
      sizes.push_back(multiple * (maxPacket - overhead));
      sizes.push_back(multiple * (maxPacket - overhead) + 1);
    }
  }
  if (maxPacket % 300 == 200) {
    sizes.push_back(8 * megabyte);
  }
  return sizes;
}

// Bytes without start codes and without a zero at the end.
Bytes nalUnit(std::uint8_t type, std::size_t size, std::minstd_rand& random) {
  Bytes bytes(size, 0);
  for (auto& byte : bytes) {
    byte = static_cast<std::uint8_t>(1 + random() % 255);
  }
  bytes[0] = static_cast<std::uint8_t>(0x60 | type);
  return bytes;
}

// The same for H.265.
Bytes nalUnit265(std::uint8_t type, std::size_t size, std::minstd_rand& random) {
  Bytes bytes = nalUnit(0, std::max<std::size_t>(2, size), random);
  bytes[0] = static_cast<std::uint8_t>(type << 1);
  bytes[1] = 1;
  return bytes;
}

}  // namespace

TEST(Packetizers, OfVideoKeepEveryNalUnit) {
  struct Codec {
    decltype(packetizeH264)* packetize;
    decltype(nalUnit)* unit;
    std::size_t headerSize;
    std::vector<std::uint8_t> sets;
    std::uint8_t key;
  };
  Codec const codecs[] = {{packetizeH264, nalUnit, 1, {7, 8}, 5}, {packetizeH265, nalUnit265, 2, {32, 33, 34}, 21}};
  std::minstd_rand random(1);
  for (Codec const& codec : codecs) {
    for (std::size_t maxPacket = 200; maxPacket <= 1400; ++maxPacket) {
      for (std::size_t const size : sizesFor(maxPacket, random)) {
        bool const isKey = size % 2 == 0;
        std::vector<Bytes> expected;
        if (isKey) {
          std::ranges::transform(codec.sets, std::back_inserter(expected),
                                 [&](std::uint8_t type) { return codec.unit(type, 20, random); });
        }
        expected.push_back(codec.unit(isKey ? codec.key : 1, size, random));
        Bytes accessUnit;
        for (Bytes const& unit : expected) {
          Bytes const startCode = {0, 0, 0, 1};
          accessUnit.insert(accessUnit.end(), startCode.begin(),
                            accessUnit.empty() ? startCode.begin() : startCode.end());
          accessUnit.insert(accessUnit.end(), unit.begin(), unit.end());
        }
        auto const payloads = payloadsOf(maxPacket, [&](FramePackets& packets) {
          ASSERT_EQ(codec.packetize(accessUnit, maxPacket, packets), isKey);
        });
        ASSERT_EQ(nalUnitsOf(payloads, codec.headerSize), expected) << maxPacket << ", " << size;
      }
    }
  }
}

TEST(Packetizers, OfJpegKeepTheImage) {
  std::minstd_rand random(2);
  Bytes tables(128);
  std::iota(tables.begin(), tables.end(), std::uint8_t{1});
  for (std::size_t maxPacket = 200; maxPacket <= 1400; ++maxPacket) {
    for (std::size_t const size : sizesFor(maxPacket, random)) {
      Bytes const scan = nalUnit(1, size, random);
      bool const hasRestarts = size % 2 == 0;
      auto const type = static_cast<std::uint8_t>(hasRestarts ? 64 + size / 2 % 2 : 1);
      JpegFrame const frame{.type = type,
                            .q = 195,
                            .width = 80,
                            .height = 60,
                            .precision = 8,
                            .tables = tables,
                            .scan = scan,
                            .restartInterval = 513};
      auto const image =
          jpegOf(payloadsOf(maxPacket, [&](FramePackets& packets) { packetizeJpeg(frame, maxPacket, packets); }));
      ASSERT_EQ(image.header, (Bytes{type, 195, 80, 60}));
      ASSERT_EQ(image.restartInterval, hasRestarts ? 513U : 0U);
      ASSERT_EQ(image.tables, tables);
      ASSERT_EQ(image.scan, scan) << maxPacket << ", " << size;
    }
  }
}

// On an RTSP connection, channel and length precede each packet.
TEST(Packetizers, TheSamePacketsAreInterleavedOnAnyChannel) {
  std::minstd_rand random(3);
  FramePackets packets;
  Bytes const unit = nalUnit(1, 5000, random);
  packets.begin(rtpHeader);
  packetizeH264(unit, 1400, packets);
  auto const datagrams = packetsOf(packets);
  for (std::uint8_t const channel : Bytes{0, 7, 0}) {
    Bytes expected;
    for (Bytes const& packet : datagrams) {
      Bytes const prefix = {'$', channel, static_cast<std::uint8_t>(packet.size() >> 8),
                            static_cast<std::uint8_t>(packet.size())};
      expected.insert(expected.end(), prefix.begin(), prefix.end());
      expected.insert(expected.end(), packet.begin(), packet.end());
    }
    Bytes sent;
    for (iovec const& piece : packets.interleaved(channel)) {
      auto const* const begin = static_cast<std::uint8_t const*>(piece.iov_base);
      sent.insert(sent.end(), begin, begin + piece.iov_len);
    }
    EXPECT_EQ(sent, expected);
  }
}
