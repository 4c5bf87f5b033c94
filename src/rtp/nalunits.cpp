#include "rtp/nalunits.h"

#include <cstring>

namespace kavo {

namespace {

// The position of the next 00 00 01, or the end.
std::size_t findStartCode(std::span<std::uint8_t const> bytes, std::size_t from) {
  // The ones are rarer than the zeros: look for them.
  for (std::size_t at = from + 2; at < bytes.size(); ++at) {
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

}  // namespace

std::vector<NalUnit> splitAccessUnit(std::span<std::uint8_t const> accessUnit) {
  std::vector<NalUnit> nalUnits;
  std::size_t begin = 0;
  while (begin < accessUnit.size()) {
    std::size_t const startCode = findStartCode(accessUnit, begin);
    std::size_t end = startCode;
    while (end > begin && accessUnit[end - 1] == 0) {
      --end;
    }
    if (end > begin) {
      nalUnits.push_back(accessUnit.subspan(begin, end - begin));
    }
    begin = startCode + 3;
  }
  return nalUnits;
}

}  // namespace kavo
