// Any bytes as an access unit: its NAL units lie inside it, in order, and none
// is empty or holds a start code.
#include <cstdint>
#include <cstdlib>

#include "rtp/nalunits.h"

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::uint8_t const* end = data;
  for (kavo::NalUnit const nalUnit : kavo::splitAccessUnit({data, size})) {
    bool const inside = nalUnit.data() >= end && nalUnit.data() + nalUnit.size() <= data + size;
    bool startCode = false;
    for (std::size_t i = 0; i + 2 < nalUnit.size(); ++i) {
      startCode = startCode || (nalUnit[i] == 0 && nalUnit[i + 1] == 0 && nalUnit[i + 2] == 1);
    }
    if (!inside || nalUnit.empty() || startCode) {
      std::abort();
    }
    end = nalUnit.data() + nalUnit.size();
  }
  return 0;
}
