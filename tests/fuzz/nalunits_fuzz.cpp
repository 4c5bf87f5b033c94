// Any bytes as an access unit: its NAL units lie inside it, in order, and none
// is empty or holds a start code.
#include <cstdint>
#include <cstdlib>

#include "rtp/nalunits.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::uint8_t const* end = data;
  std::span<std::uint8_t const> rest(data, size);
  for (auto unit = kavo::impl::takeNalUnit(rest); !unit.empty(); unit = kavo::impl::takeNalUnit(rest)) {
    bool const inside = unit.data() >= end && unit.data() + unit.size() <= data + size;
    bool startCode = false;
    for (std::size_t i = 0; i + 2 < unit.size(); ++i) {
      startCode = startCode || (unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 1);
    }
    if (!inside || startCode) {
      std::abort();
    }
    end = unit.data() + unit.size();
  }
  return 0;
}
