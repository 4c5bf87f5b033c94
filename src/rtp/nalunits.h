// Finds the NAL units in byte streams of H.264 and H.265 (Annex B of both). Any thread.
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

// Removes the first NAL unit from the byte stream and returns it without its start code (of
// three or four bytes) and trailing zeros; the first one may lack a start code. Skips empty
// ones; an empty result means that there are no more.
NalUnit takeNalUnit(std::span<std::uint8_t const>& byteStream);

// The first NAL unit of the type; empty if there is none.
NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, NalUnitType type);
NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, H265NalUnitType type);

}  // namespace kavo::impl
