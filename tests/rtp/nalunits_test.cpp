#include "rtp/nalunits.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace kavo::impl;

namespace {

using Bytes = std::vector<std::uint8_t>;

// The NAL units as text, split from a heap block of exactly the input's size.
std::vector<Bytes> split(Bytes const& input) {
  auto const exact = std::make_unique<std::uint8_t[]>(input.size());
  std::copy(input.begin(), input.end(), exact.get());
  std::vector<Bytes> result;
  std::span<std::uint8_t const> rest(exact.get(), input.size());
  for (NalUnit unit = takeNalUnit(rest); !unit.empty(); unit = takeNalUnit(rest)) {
    result.emplace_back(unit.begin(), unit.end());
  }
  return result;
}

}  // namespace

TEST(NalUnits, AreFoundBehindStartCodesOfBothLengths) {
  struct Case {
    Bytes input;
    std::vector<Bytes> expected;
  };
  Case const cases[] = {
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
  for (auto const& c : cases) {
    EXPECT_EQ(split(c.input), c.expected) << ::testing::PrintToString(c.input);
  }
}
