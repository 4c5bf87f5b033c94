#include "codec/jpegencoder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "base/streamexception.h"
#include "codec/guardedframe.h"
#include "codec/transcoder.h"
#include "rtsp/jpegheader.h"

using namespace kavo;
using namespace kavo::test;

namespace {

std::vector<std::uint8_t> encoded(Transcoder& transcoder, std::uint8_t const* frame) {
  AVPacket packet{};
  transcoder.transcode(frame, packet);
  std::vector<std::uint8_t> bytes(packet.data, packet.data + packet.size);
  av_packet_unref(&packet);
  return bytes;
}

int refusal(VideoCodecParameter const& parameter, char const* message) {
  try {
    Transcoder transcoder(&parameter);
  } catch (StreamException const& failure) {
    EXPECT_STREQ(failure.what(), message);
    return failure.m_Code;
  }
  return -1;
}

}  // namespace

TEST(JpegEncoder, ReadsNothingBehindTheFrame) {
  struct Case {
    int srcWidth, srcHeight, dstWidth, dstHeight;
  };
  Case const cases[] = {{640, 480, 640, 480}, {1280, 1024, 640, 512}, {641, 481, 640, 480}, {16, 8, 16, 8},
                        {5, 3, 16, 16},       {1, 1, 8, 8},           {638, 479, 320, 240}, {100, 2, 64, 64},
                        {320, 240, 640, 480}, {1920, 1080, 1280, 720}};
  std::minstd_rand random(4711);
  for (auto const& c : cases) {
    for (auto const format : allFormats) {
      std::size_t const size = frameSize(format, c.srcWidth, c.srcHeight);
      GuardedFrame const guarded(size);
      std::generate_n(guarded.data(), size, [&] { return static_cast<std::uint8_t>(random() >> 8); });
      std::vector<std::uint8_t> padded(size + 8192);
      std::memcpy(padded.data(), guarded.data(), size);
      auto const parameter = parameters(8, format, c.srcWidth, c.srcHeight, c.dstWidth, c.dstHeight);
      Transcoder first(&parameter);
      Transcoder second(&parameter);
      EXPECT_EQ(encoded(first, guarded.data()), encoded(second, padded.data()))
          << "format " << format << ", " << c.srcWidth << "x" << c.srcHeight;
    }
  }
}

TEST(JpegEncoder, WritesStandardHuffmanTablesAndItsSize) {
  auto const parameter = parameters(8, 3, 1280, 960, 640, 480);
  Transcoder transcoder(&parameter);
  std::vector<std::uint8_t> const frame(frameSize(3, 1280, 960) + 4096, 90);
  auto const image = encoded(transcoder, frame.data());
  JpegHeader const header = readJpegHeader(image);
  ASSERT_TRUE(header.size && header.tables);
  EXPECT_EQ(header.size->width, 80);
  EXPECT_EQ(header.size->height, 60);
  EXPECT_GT(header.length, 0U);
  // The first code lengths of the standard luminance DC table (JPEG, table K.3).
  std::uint8_t const standard[] = {0x00, 0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
  EXPECT_NE(std::search(image.begin(), image.end(), std::begin(standard), std::end(standard)), image.end());
}

TEST(JpegEncoder, RefusesWhatItCannotEncode) {
  for (auto const& [width, height] : {std::pair(2044, 480), {640, 2044}, {642, 480}, {640, 482}}) {
    EXPECT_EQ(refusal(parameters(8, 3, 640, 480, width, height), "AVCodec invalid frame size"), 2);
  }
  auto const largest = parameters(8, 3, 64, 64, 2040, 2040);
  EXPECT_NO_THROW(Transcoder{&largest});
}

TEST(Transcoder, ValidatesInOrder) {
  auto const with = [](auto change) {
    auto parameter = parameters(8, 3, 640, 480, 640, 480);
    change(parameter);
    return parameter;
  };
  char const* const invalid = "Invalid parameter";
  EXPECT_EQ(refusal(with([](auto& p) { p.m_SrcWidth = 0; }), invalid), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_SrcHeight = 0; }), invalid), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_DstWidth = 0; }), invalid), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_DstHeight = 0; }), invalid), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_Bitrate = 0; }), invalid), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_SrcPixelFmt = 8; }), invalid), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_SrcCodecId = 1; }), "Invalid codec parameter"), 0);
  EXPECT_EQ(refusal(with([](auto& p) { p.m_DstCodecId = 27; }), "Invalid codec parameter"), 0);
  // Sizes below zero pass the check for zero, and fail where they are used.
  auto const negative = with([](auto& p) { p.m_DstWidth = -640; });
  EXPECT_THROW(Transcoder{&negative}, StreamException);
}
