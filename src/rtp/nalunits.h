// Byte streams of H.264 and H.265 (Annex B of both): where the NAL units are. Any thread.
#pragma once

#include <cstdint>
#include <span>

namespace kavo::impl {

using NalUnit = std::span<std::uint8_t const>;

enum class NalUnitType : std::uint8_t { Idr = 5, Sps = 7, Pps = 8 };

// Of H.264.
inline NalUnitType typeOf(NalUnit nalUnit) { return static_cast<NalUnitType>(nalUnit[0] & 0x1F); }

enum class H265NalUnitType : std::uint8_t { FirstIrap = 16, LastIrap = 23, Vps = 32, Sps = 33, Pps = 34 };

inline H265NalUnitType h265TypeOf(NalUnit nalUnit) { return static_cast<H265NalUnitType>(nalUnit[0] >> 1 & 0x3F); }
inline bool isIrap(H265NalUnitType type) {
  return type >= H265NalUnitType::FirstIrap && type <= H265NalUnitType::LastIrap;
}

// Takes the first NAL unit off the byte stream, without start codes (of three or
// four bytes) and trailing zeros; the first may come without a start code. Empty
// ones are skipped, and an empty result means that there is none left.
NalUnit takeNalUnit(std::span<std::uint8_t const>& byteStream);

// The first NAL unit of the type; empty if there is none.
NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, NalUnitType type);
NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, H265NalUnitType type);

}  // namespace kavo::impl
