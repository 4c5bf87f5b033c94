#include <gtest/gtest.h>

#include <memory>
#include <utility>
#include <vector>

#include "rtp/packets.h"

namespace {

using reassembly::Bytes;

// The NAL units of a heap block of exactly the input's size.
std::vector<Bytes> split(Bytes const& input) {
  auto const exact = std::make_unique<std::uint8_t[]>(input.size());
  std::copy(input.begin(), input.end(), exact.get());
  return reassembly::nalUnitsIn({exact.get(), input.size()});
}

}  // namespace

TEST(NalUnits, AreFoundAfterStartCodesOfBothLengths) {
  std::pair<Bytes, std::vector<Bytes>> const cases[] = {
      {{}, {}},
      {{0x41, 9, 8}, {{0x41, 9, 8}}},
      {{0x67, 1, 0, 0, 0, 1, 0x68, 2, 0, 0, 0, 1, 0x65, 3}, {{0x67, 1}, {0x68, 2}, {0x65, 3}}},
      {{0x67, 1, 0, 0, 1, 0x68, 2, 0, 0, 1, 0x65, 3}, {{0x67, 1}, {0x68, 2}, {0x65, 3}}},
      {{0, 0, 0, 1, 0x65, 3}, {{0x65, 3}}},
      {{0, 0, 1, 0x65, 3}, {{0x65, 3}}},
      {{0x65, 3, 0, 0, 0}, {{0x65, 3}}},                         // zeros after the last one
      {{0x65, 3, 0, 0, 1}, {{0x65, 3}}},                         // an empty one at the end
      {{0x65, 0, 0, 1, 0, 0, 1, 0x41, 1}, {{0x65}, {0x41, 1}}},  // an empty one between
      {{0x65, 0, 0, 3, 1, 7}, {{0x65, 0, 0, 3, 1, 7}}},          // emulation prevention
      {{0x65, 0, 1, 1, 0, 1}, {{0x65, 0, 1, 1, 0, 1}}},
      {{0, 0}, {}},
      {{1}, {{1}}},
      {{0, 0, 1}, {}},
  };
  for (auto const& [input, expected] : cases) {
    EXPECT_EQ(split(input), expected) << ::testing::PrintToString(input);
  }
}
