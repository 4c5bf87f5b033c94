// H.264 byte streams (Annex B): where the NAL units are. Any thread.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace kavo {

using NalUnit = std::span<std::uint8_t const>;

// The NAL units of an access unit, in order, without start codes (of three or
// four bytes) and the zeros behind a NAL unit; the first may stand without a
// start code. Empty ones are left out.
std::vector<NalUnit> splitAccessUnit(std::span<std::uint8_t const> accessUnit);

enum class NalUnitType : std::uint8_t { Idr = 5, Sps = 7, Pps = 8 };

inline NalUnitType typeOf(NalUnit nalUnit) { return static_cast<NalUnitType>(nalUnit[0] & 0x1F); }

}  // namespace kavo
