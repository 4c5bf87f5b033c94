#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>

#include "codec/encoding.h"
#include "rtp/jpegheader.h"

using namespace kavo::impl;
using namespace kavo::impl::test;

TEST(JpegEncoder, ReadsNothingBehindTheFrame) { expectReadsNothingBehindTheFrame(8); }

TEST(JpegEncoder, WritesStandardHuffmanTablesAndItsSize) {
  auto const parameter = parameters(8, 3, 1280, 960, 640, 480);
  Transcoder transcoder(&parameter);
  std::vector<std::uint8_t> const frame(frameSize(3, 1280, 960) + 4096, 90);
  auto const image = encoded(transcoder, frame.data()).bytes;
  JpegHeader const header = readJpegHeader(image);
  ASSERT_TRUE(header.size && header.tables);
  EXPECT_EQ(header.size->width, 80);
  EXPECT_EQ(header.size->height, 60);
  EXPECT_GT(header.length, 0U);
  // The first code lengths of the standard luminance DC table (JPEG, table K.3).
  std::uint8_t const standard[] = {0x00, 0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_NE(std::search(image.begin(), image.end(), std::begin(standard), std::end(standard)), image.end());
}

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
