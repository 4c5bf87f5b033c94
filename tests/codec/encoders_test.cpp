#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <random>

#include "codec/encoding.h"
#include "rtp/packets.h"

using namespace kavo::impl;
using namespace kavo::impl::test;

namespace {

std::vector<int> nalTypes(std::span<std::uint8_t const> bytes) {
  std::vector<int> types;
  std::ranges::transform(reassembly::nalUnitsIn(bytes), std::back_inserter(types),
                         [](auto const& unit) { return unit[0] & 0x1F; });
  return types;
}

// Each frame differs from the previous one, so the encoder does not skip it as unchanged.
std::vector<std::uint8_t> movingFrame(int number) {
  std::vector<std::uint8_t> frame(frameSize(0, 320, 240) + 4096, 128);
  for (std::size_t at = 0; at < 320 * 240; ++at) {
    frame[at] = static_cast<std::uint8_t>(at % 320 + static_cast<std::size_t>(number) * 5);
  }
  return frame;
}

std::vector<int> const keyFrame = {7, 8, 5};
std::vector<int> const otherFrame = {1};

}  // namespace

// A frame that ends where readable memory ends encodes to the same bytes as a padded copy.
TEST(Encoders, ReadNothingPastTheFrame) {
  struct Case {
    int srcWidth, srcHeight, dstWidth, dstHeight;
  };
  Case const cases[] = {{640, 480, 640, 480}, {1280, 1024, 640, 512}, {641, 481, 640, 480}, {16, 16, 16, 16},
                        {5, 3, 16, 16},       {1, 1, 16, 16},         {638, 479, 320, 240}, {100, 2, 64, 64},
                        {320, 240, 640, 480}, {1920, 1080, 1280, 720}};
  std::minstd_rand random(4711);
  for (int const codec : {8, 28}) {
    for (auto const& c : cases) {
      for (auto const format : allFormats) {
        std::size_t const size = frameSize(format, c.srcWidth, c.srcHeight);
        GuardedFrame const guarded(size);
        std::generate_n(guarded.data(), size, [&] { return static_cast<std::uint8_t>(random() >> 8); });
        std::vector<std::uint8_t> padded(guarded.data(), guarded.data() + size);
        padded.resize(size + 8192);
        auto const parameter = parameters(codec, format, c.srcWidth, c.srcHeight, c.dstWidth, c.dstHeight);
        Transcoder first(&parameter);
        Transcoder second(&parameter);
        EXPECT_EQ(encoded(first, guarded.data()).bytes, encoded(second, padded.data()).bytes)
            << "codec " << codec << ", format " << format << ", " << c.srcWidth << "x" << c.srcHeight;
      }
    }
  }
}

TEST(Encoders, JpegInputChangesNothing) {
  for (int const codec : {8, 28}) {
    auto parameter = parameters(codec, 3, 320, 240, 320, 240);
    std::vector<std::uint8_t> const frame(frameSize(3, 320, 240) + 4096, 120);
    Transcoder raw(&parameter);
    parameter.m_SrcCodecId = 8;
    Transcoder jpeg(&parameter);
    EXPECT_EQ(encoded(raw, frame.data()).bytes, encoded(jpeg, frame.data()).bytes);
  }
}

TEST(OpenH264Encoder, BeginsWithParameterSetsAndRepeatsThemEveryTwoSeconds) {
  auto const parameter = parameters(28, 0, 320, 240, 320, 240);
  Transcoder transcoder(&parameter);
  auto const described = transcoder.parameterSets();
  for (int i = 0; i < 110; ++i) {
    auto const frame = encoded(transcoder, movingFrame(i).data());
    if (frame.bytes.empty()) {
      continue;  // skipped by rate control
    }
    EXPECT_EQ(nalTypes(frame.bytes), i % 50 == 0 ? keyFrame : otherFrame) << i;
    EXPECT_EQ(frame.key, i % 50 == 0) << i;
    EXPECT_NE(frame.bytes[0], 0) << "a start code in front of frame " << i;
    if (frame.key) {
      EXPECT_TRUE(std::equal(described.begin() + 4, described.end(), frame.bytes.begin())) << "others than described";
    }
  }
}

TEST(OpenH264Encoder, MakesAKeyFrameOnRequestEvenIfFramesAreSkipped) {
  auto parameter = parameters(28, 0, 320, 240, 320, 240);
  parameter.m_Bitrate = 30000;  // far too low: rate control skips frames
  Transcoder transcoder(&parameter);
  int skipped = 0;
  int waited = -1;
  for (int i = 0; i < 100; ++i) {
    if (i == 25) {
      transcoder.requestKeyFrame();
    }
    auto const frame = encoded(transcoder, movingFrame(i * 7).data());
    skipped += frame.bytes.empty() ? 1 : 0;
    if (i >= 25 && waited < 0) {
      if (frame.key) {
        waited = i - 25;
      } else {
        EXPECT_TRUE(frame.bytes.empty()) << "another frame came before the key frame";
      }
    }
  }
  EXPECT_GT(skipped, 0);
  EXPECT_GE(waited, 0) << "no key frame came";
}

// The sanitizers check our buffers, and valgrind checks OpenH264's.
TEST(OpenH264Encoder, TakesOddSizesOrRefusesThem) {
  for (auto const& [width, height] : {std::pair(321, 240), {320, 241}, {333, 257}, {17, 17}}) {
    auto const parameter = parameters(28, 2, 320, 240, width, height);
    std::vector<std::uint8_t> const frame(frameSize(2, 320, 240) + 4096, 77);
    try {
      Transcoder transcoder(&parameter);
      for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(encoded(transcoder, frame.data()).key, i == 0) << width << "x" << height;
      }
    } catch (StreamException const& failure) {
      EXPECT_EQ(failure.m_Code, ErrorCodec);
    }
  }
}
