// Images of other encoders: their RTP/JPEG headers, and the images that are refused.
#include "rtp/jpegimage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "codec/encoding.h"
#include "rtp/accessunit.h"

using namespace kavo::impl;

namespace {

using Bytes = std::vector<std::uint8_t>;

// An image of 64x48 pixels in 4:2:0, by FFmpeg's encoder.
Bytes image() {
  auto const parameter = test::parameters(8, 2, 64, 48, 64, 48);
  Transcoder transcoder(&parameter);
  return test::encoded(transcoder, Bytes(64 * 48 * 3 + 4096, 90).data()).bytes;
}

std::size_t segmentAt(Bytes const& bytes, std::uint8_t marker) {
  Bytes const wanted = {0xFF, marker};
  return static_cast<std::size_t>(std::ranges::search(bytes, wanted).begin() - bytes.begin());
}

// The reason for the refusal; empty if the image is accepted.
std::string refusalOf(Bytes const& bytes) {
  try {
    JpegImage const read(bytes);
    return "";
  } catch (UnusableFrame const& reason) {
    return reason.what();
  }
}

}  // namespace

TEST(JpegImage, IsAcceptedInEveryFormThatRtpCanDescribe) {
  Bytes const good = image();
  auto const frameHeader = segmentAt(good, 0xC0);
  struct Case {
    char const* what;
    std::function<void(Bytes&)> change;
    int type;
    int interval;
  };
  auto const insertInterval = [&](Bytes& bytes) {
    Bytes const segment = {0xFF, 0xDD, 0, 4, 0, 7};
    bytes.insert(bytes.begin() + static_cast<std::ptrdiff_t>(frameHeader), segment.begin(), segment.end());
  };
  Case const cases[] = {
      {"4:2:0", [](Bytes&) {}, 1, 0},
      {"4:2:2", [&](Bytes& b) { b[frameHeader + 11] = 0x21; }, 0, 0},
      {"4:2:0 with restarts", insertInterval, 65, 7},
      {"4:2:2 with restarts",
       [&](Bytes& b) {
         b[frameHeader + 11] = 0x21;
         insertInterval(b);
       },
       64, 7},
      {"without Huffman tables",
       [](Bytes& b) {
         for (auto at = segmentAt(b, 0xC4); at < b.size(); at = segmentAt(b, 0xC4)) {
           b.erase(b.begin() + static_cast<std::ptrdiff_t>(at),
                   b.begin() + static_cast<std::ptrdiff_t>(at + 2 + b[at + 2] * 256U + b[at + 3]));
         }
       },
       1, 0},
      {"with padding", [](Bytes& b) { b.resize(b.size() + 1000); }, 1, 0},
      {"with more restarts than there are markers for",
       [&](Bytes& b) {
         insertInterval(b);
         for (int i = 0; i <= 8; ++i) {
           b.insert(b.end() - 2, {0x11, 0xFF, static_cast<std::uint8_t>(0xD0 + i % 8)});
         }
       },
       65, 7},
  };
  for (Case const& c : cases) {
    Bytes bytes = good;
    c.change(bytes);
    ASSERT_EQ(refusalOf(bytes), "") << c.what;
    JpegImage const read(bytes);
    auto const& frame = read.frame();
    EXPECT_EQ(frame.type, c.type) << c.what;
    EXPECT_EQ(frame.restartInterval, c.interval) << c.what;
    EXPECT_EQ(frame.q, 255);
    EXPECT_EQ(frame.width, 8);
    EXPECT_EQ(frame.height, 6);
    EXPECT_EQ(frame.precision, 0);
    EXPECT_EQ(frame.tables.size(), 128U);
    EXPECT_EQ(frame.scan[frame.scan.size() - 1], 0xD9) << c.what;
  }
}

TEST(JpegImage, IsRefusedWithAReason) {
  Bytes const good = image();
  auto const frameHeader = segmentAt(good, 0xC0);
  auto const scan = segmentAt(good, 0xDA);
  auto const tables = segmentAt(good, 0xDB);
  auto const huffman = segmentAt(good, 0xC4);
  std::pair<char const*, std::function<void(Bytes&)>> const cases[] = {
      {"does not begin", [](Bytes& b) { b[1] = 0; }},
      {"does not begin", [](Bytes& b) { b.resize(3); }},
      {"header is cut short", [&](Bytes& b) { b.resize(frameHeader + 8); }},
      {"header is damaged", [&](Bytes& b) { b[frameHeader] = 0; }},
      {"not baseline", [&](Bytes& b) { b[frameHeader + 1] = 0xC2; }},
      {"8 bits", [&](Bytes& b) { b[frameHeader + 4] = 12; }},
      {"steps of 8", [&](Bytes& b) { b[frameHeader + 6] = 49; }},
      {"steps of 8", [&](Bytes& b) { b[frameHeader + 7] = 8; }},  // 2112 wide
      {"4:2:0 or 4:2:2", [&](Bytes& b) { b[frameHeader + 11] = 0x11; }},
      {"4:2:0 or 4:2:2", [&](Bytes& b) { b[frameHeader + 9] = 1; }},
      {"different quantization tables", [&](Bytes& b) { b[frameHeader + 18] ^= 1; }},
      {"16 bits", [&](Bytes& b) { b[tables + 4] = 0x10; }},
      {"no quantization tables", [&](Bytes& b) { b[tables + 4] = 3; }},
      {"Huffman tables are not the standard ones", [&](Bytes& b) { ++b[huffman + 30]; }},
      {"other Huffman tables", [&](Bytes& b) { b[scan + 6] = 0x10; }},
      {"several scans", [&](Bytes& b) { b[scan + 4] = 1; }},
      {"picture is damaged", [&](Bytes& b) { b[scan + 14] = 0xFF, b[scan + 15] = 0xD0; }},
      {"no end of image", [](Bytes& b) { b.resize(b.size() - 1); }},
      {"no picture", [&](Bytes& b) { b.resize(scan + 14), b.insert(b.end(), {0xFF, 0xD9}); }},
  };
  for (auto const& [reason, change] : cases) {
    Bytes bytes = good;
    change(bytes);
    EXPECT_NE(refusalOf(bytes).find(reason), std::string::npos) << "'" << refusalOf(bytes) << "', not " << reason;
  }
  for (std::size_t size = 0; size < good.size(); ++size) {
    EXPECT_NE(refusalOf({good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)}), "") << size;
  }
}
