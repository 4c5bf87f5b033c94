// Helpers for the encoder tests.
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

inline Encoded encoded(Transcoder& transcoder, std::uint8_t const* frame) {
  AVPacket packet{};
  transcoder.transcode(frame, packet);
  Encoded const result{{packet.data, packet.data + packet.size}, (packet.flags & AV_PKT_FLAG_KEY) != 0};
  av_packet_unref(&packet);
  return result;
}

}  // namespace kavo::impl::test
