#include "rtp/nalunits.h"

#include <algorithm>
#include <cstring>

namespace kavo::impl {

namespace {

// The position of the next 00 00 01, or the end.
std::size_t findStartCode(std::span<std::uint8_t const> bytes) {
  // 0x01 is rarer than 0x00.
  for (std::size_t at = 2; at < bytes.size(); ++at) {
    auto const* one = static_cast<std::uint8_t const*>(std::memchr(bytes.data() + at, 1, bytes.size() - at));
    if (one == nullptr) {
      break;
    }
    at = static_cast<std::size_t>(one - bytes.data());
    if (bytes[at - 1] == 0 && bytes[at - 2] == 0) {
      return at - 2;
    }
  }
  return bytes.size();
}

template <class Predicate>
NalUnit findIf(std::span<std::uint8_t const> byteStream, Predicate const& isWanted) {
  NalUnit nalUnit;
  do {
    nalUnit = takeNalUnit(byteStream);
  } while (!nalUnit.empty() && !isWanted(nalUnit));
  return nalUnit;
}

}  // namespace

NalUnit takeNalUnit(std::span<std::uint8_t const>& byteStream) {
  while (!byteStream.empty()) {
    std::size_t const startCode = findStartCode(byteStream);
    std::size_t end = startCode;
    while (end > 0 && byteStream[end - 1] == 0) {
      --end;
    }
    NalUnit const nalUnit = byteStream.first(end);
    byteStream = byteStream.subspan(std::min(startCode + 3, byteStream.size()));
    if (!nalUnit.empty()) {
      return nalUnit;
    }
  }
  return {};
}

NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, NalUnitType type) {
  return findIf(byteStream, [=](NalUnit nalUnit) { return typeOf(nalUnit) == type; });
}

NalUnit findNalUnit(std::span<std::uint8_t const> byteStream, H265NalUnitType type) {
  return findIf(byteStream, [=](NalUnit nalUnit) { return h265TypeOf(nalUnit) == type; });
}

}  // namespace kavo::impl
