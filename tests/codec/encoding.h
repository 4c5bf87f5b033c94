// What the encoders' tests share.
#pragma once

#include <cstdint>
#include <vector>

#include "base/streamexception.h"
#include "codec/guardedframe.h"
#include "codec/transcoder.h"

namespace kavo::impl::test {

struct Encoded {
  std::vector<std::uint8_t> bytes;
  bool key = false;
};

Encoded encoded(Transcoder& transcoder, std::uint8_t const* frame);

// A frame at the end of readable memory gives the packets of a padded copy, in
// all formats and several sizes.
void expectReadsNothingBehindTheFrame(std::int32_t codec);

}  // namespace kavo::impl::test
