// H.264 byte streams (Annex B): where the NAL units are. Any thread.
#pragma once

#include <cstdint>
#include <span>

namespace kavo::impl {

using NalUnit = std::span<std::uint8_t const>;

enum class NalUnitType : std::uint8_t { Idr = 5, Sps = 7, Pps = 8 };

inline NalUnitType typeOf(NalUnit nalUnit) { return static_cast<NalUnitType>(nalUnit[0] & 0x1F); }

// Takes the first NAL unit off the byte stream, without start codes (of three or
// four bytes) and trailing zeros; the first may come without a start code. Empty
// ones are skipped, and an empty result means that there is none left.
NalUnit takeNalUnit(std::span<std::uint8_t const>& byteStream);

// The first NAL unit of the type; empty if there is none.
NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, NalUnitType type);

}  // namespace kavo::impl
