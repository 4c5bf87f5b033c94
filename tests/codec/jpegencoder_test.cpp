#include <gtest/gtest.h>

#include "codec/encoding.h"

using namespace kavo::impl;
using namespace kavo::impl::test;

TEST(JpegEncoder, ReadsNothingBehindTheFrame) { expectReadsNothingBehindTheFrame(8); }

TEST(Transcoder, JpegInputChangesNothing) {
  for (int const codec : {8, 28}) {
    auto parameter = parameters(codec, 3, 320, 240, 320, 240);
    std::vector<std::uint8_t> const frame(frameSize(3, 320, 240) + 4096, 120);
    Transcoder raw(&parameter);
    parameter.m_SrcCodecId = 8;
    Transcoder jpeg(&parameter);
    EXPECT_EQ(encoded(raw, frame.data()).bytes, encoded(jpeg, frame.data()).bytes);
  }
}
