#include "codec/encoding.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

namespace kavo::impl::test {

Encoded encoded(Transcoder& transcoder, std::uint8_t const* frame) {
  AVPacket packet{};
  transcoder.transcode(frame, packet);
  Encoded result;
  result.bytes.assign(packet.data, packet.data + packet.size);
  result.key = (packet.flags & AV_PKT_FLAG_KEY) != 0;
  av_packet_unref(&packet);
  return result;
}

void expectReadsNothingBehindTheFrame(std::int32_t codec) {
  struct Case {
    int srcWidth, srcHeight, dstWidth, dstHeight;
  };
  Case const cases[] = {{640, 480, 640, 480}, {1280, 1024, 640, 512}, {641, 481, 640, 480}, {16, 16, 16, 16},
                        {5, 3, 16, 16},       {1, 1, 16, 16},         {638, 479, 320, 240}, {100, 2, 64, 64},
                        {320, 240, 640, 480}, {1920, 1080, 1280, 720}};
  std::minstd_rand random(4711);
  for (auto const& c : cases) {
    for (auto const format : allFormats) {
      std::size_t const size = frameSize(format, c.srcWidth, c.srcHeight);
      GuardedFrame const guarded(size);
      std::generate_n(guarded.data(), size, [&] { return static_cast<std::uint8_t>(random() >> 8); });
      std::vector<std::uint8_t> padded(size + 8192);
      std::memcpy(padded.data(), guarded.data(), size);
      auto const parameter = parameters(codec, format, c.srcWidth, c.srcHeight, c.dstWidth, c.dstHeight);
      Transcoder first(&parameter);
      Transcoder second(&parameter);
      EXPECT_EQ(encoded(first, guarded.data()).bytes, encoded(second, padded.data()).bytes)
          << "format " << format << ", " << c.srcWidth << "x" << c.srcHeight;
    }
  }
}

}  // namespace kavo::impl::test
