#include "rtp/rtcp.h"

#include <gtest/gtest.h>

#include "rtp/reassembly.h"

using namespace kavo::impl;
using reassembly::Bytes;
using reassembly::numberAt;

namespace {

constexpr std::uint32_t ssrc = 0xCAFE0001;

Bytes const ours = {0xCA, 0xFE, 0, 1, 64, 0xFF, 0xFF, 0xFE, 0, 1, 0, 9, 0, 0, 1, 2, 1, 2, 3, 4, 0, 1, 0, 0};
Bytes const foreign = {1, 1, 1, 1, 9, 0, 0, 9, 0, 0, 0, 9, 0, 0, 0, 9, 0, 0, 0, 9, 0, 0, 0, 9};

Bytes packet(std::uint8_t type, std::initializer_list<Bytes> blocks, std::size_t head = 4) {
  Bytes bytes(4 + head, 0);
  for (Bytes const& part : blocks) {
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  bytes[0] = static_cast<std::uint8_t>(0x80 | blocks.size());
  bytes[1] = type;
  bytes[3] = static_cast<std::uint8_t>(bytes.size() / 4 - 1);
  return bytes;
}

Bytes operator+(Bytes left, Bytes const& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

}  // namespace

TEST(Rtcp, ASenderReportHasTimeAndName) {
  SenderInfo const info{.ssrc = ssrc, .ntpTime = 0x0102030405060708, .rtpTime = 9, .packets = 10, .octets = 11};
  for (std::string const name : {"", "a", "ab", "abc", "abcd", "a-host.example"}) {
    for (bool const bye : {false, true}) {
      Bytes const report = makeSenderReport(info, name, bye);
      ASSERT_EQ(report.size() % 4, 0U);
      EXPECT_EQ(numberAt(report, 0, 4), 0x80C80006U);
      EXPECT_EQ(numberAt(report, 4, 4), ssrc);
      EXPECT_EQ(numberAt(report, 8, 4), 0x01020304U);
      EXPECT_EQ(numberAt(report, 16, 4), 9U);
      EXPECT_EQ(numberAt(report, 24, 4), 11U);
      EXPECT_EQ(numberAt(report, 28, 2), 0x81CAU);
      EXPECT_EQ(report[37], name.size());
      EXPECT_EQ(std::string(report.begin() + 38, report.begin() + 38 + static_cast<std::ptrdiff_t>(name.size())), name);
      EXPECT_EQ(report[38 + name.size()], 0) << "the list of items has no end";
      std::size_t const end = 28 + 4 * (numberAt(report, 30, 2) + 1);
      ASSERT_EQ(report.size(), end + (bye ? 8 : 0)) << name;
      if (bye) {
        EXPECT_EQ(numberAt(report, end, 4), 0x81CB0001U);
      }
    }
  }
}

TEST(Rtcp, AReceiverReportIsReadWhereverItsBlockIs) {
  Bytes const description = packet(202, {Bytes{1, 1, 'x', 0}});
  for (Bytes const& report : {packet(201, {ours}), packet(201, {foreign, ours}), packet(200, {ours}, 24),
                              packet(201, {}) + packet(201, {foreign, ours}) + description}) {
    auto const read = readReceiverReport(report, ssrc);
    ASSERT_TRUE(read && read->block) << ::testing::PrintToString(report);
    EXPECT_EQ(read->block->fractionLost, 64);
    EXPECT_EQ(read->block->packetsLost, -2);
    EXPECT_EQ(read->block->highestSequence, 0x10009U);
    EXPECT_EQ(read->block->jitter, 0x102U);
    EXPECT_EQ(read->block->lastSenderReport, 0x01020304U);
    EXPECT_EQ(read->block->sinceSenderReport, 0x10000U);
  }
  for (Bytes const& report : {packet(201, {}), packet(201, {foreign}), packet(201, {}) + description}) {
    auto const read = readReceiverReport(report, ssrc);
    ASSERT_TRUE(read);
    EXPECT_FALSE(read->block);
  }
}
