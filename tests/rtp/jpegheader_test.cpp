#include "rtp/jpegheader.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace kavo::impl;

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes sof0(int width, int height) {
  Bytes bytes = {0xFF, 0xC0, 0, 17, 8};
  for (int const part : {height >> 8, height, width >> 8, width}) {
    bytes.push_back(static_cast<std::uint8_t>(part));
  }
  return bytes;
}

// A segment with one table of ascending values.
Bytes dqt(std::uint8_t first) {
  Bytes bytes = {0xFF, 0xDB, 0, 67, 0};
  for (int i = 0; i < 64; ++i) {
    bytes.push_back(static_cast<std::uint8_t>(first + i));
  }
  return bytes;
}

Bytes joined(std::initializer_list<Bytes> parts, std::size_t zeros = 0) {
  Bytes all;
  for (auto const& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  all.resize(all.size() + zeros);
  return all;
}

Bytes const endOfHeader = {0x3F, 0x00};

// Read from a block of exactly the image's size, so that sanitizers see a step too far.
JpegHeader read(Bytes const& image) {
  auto const exact = std::make_unique<std::uint8_t[]>(image.size());
  std::copy(image.begin(), image.end(), exact.get());
  return readJpegHeader({exact.get(), image.size()});
}

}  // namespace

TEST(JpegHeader, TellsTheSizeInUnitsOfEight) {
  struct Case {
    int width, height, widthUnits, heightUnits;
  };
  for (auto const& c : {Case{640, 480, 80, 60},
                        {1920, 1080, 240, 135},
                        {1278, 720, 159, 90},
                        {2040, 2040, 255, 255},
                        {2048, 8, 0, 1}}) {
    auto const header = read(joined({sof0(c.width, c.height), endOfHeader}));
    ASSERT_TRUE(header.size) << c.width;
    EXPECT_EQ(header.size->width, c.widthUnits);
    EXPECT_EQ(header.size->height, c.heightUnits);
  }
}

TEST(JpegHeader, TheLastTableServesForBothComponents) {
  auto const header = read(joined({dqt(1), dqt(100), endOfHeader}));
  ASSERT_TRUE(header.tables);
  for (std::size_t i = 0; i < 128; ++i) {
    EXPECT_EQ((*header.tables)[i], 100 + i % 64);
  }
}

TEST(JpegHeader, EndsBehindTheScanHeader) {
  Bytes image(700, 0);
  image[598] = 0x3F;
  EXPECT_EQ(read(image).length, 600U);
}

TEST(JpegHeader, StaysInsideEveryTruncatedImage) {
  Bytes const whole = joined({sof0(640, 480), dqt(1), endOfHeader});
  for (std::size_t size = 0; size < whole.size(); ++size) {
    auto const header = read(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    EXPECT_EQ(header.length, 0U) << size;
    EXPECT_EQ(header.size.has_value(), size >= 9) << size;
    EXPECT_EQ(header.tables.has_value(), size >= 9 + 69) << size;
  }
}
