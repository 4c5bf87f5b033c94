// What existing hosts rely on, as contract_test.py has what clients rely on. Numbers and settings are written out
// here, not taken from the library.
#include <gtest/gtest.h>

#include <new>
#include <system_error>
#include <vector>

#include "bench/floor.h"
#include "codec/encoding.h"
#include "interface/cinterface.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/jpegsource.h"

using namespace kavo::impl;

namespace {

using Bytes = std::vector<std::uint8_t>;

// A frame of a moving picture, so that rate control has something to do.
Bytes pictureOf(int number, int width, int height) {
  Bytes picture(static_cast<std::size_t>(width * height * 3 / 2) + 4096, 128);
  for (int at = 0; at < width * height; ++at) {
    picture[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(at * at / 97 + number * 9);
  }
  return picture;
}

}  // namespace

TEST(ContractOfTheQueue, TenFramesFill) {
  FrameSourceHandler queue;
  for (int i = 0; i < 10; ++i) {
    EXPECT_TRUE(queue.IsBufferFree()) << i;
    queue.push({});
  }
  EXPECT_FALSE(queue.IsBufferFree());
  queue.pop();
  EXPECT_TRUE(queue.IsBufferFree());
}

TEST(ContractOfErrors, NoOtherExceptionEscapes) {
  auto const result = [](auto const& function) { return resultOf(function, [](char const*) {}); };
  EXPECT_EQ(result([] {}), 0);
  EXPECT_EQ(result([] { throw std::out_of_range("lookup"); }), 5);
  EXPECT_EQ(result([] { throw std::bad_alloc(); }), -1);
  EXPECT_EQ(result([] { throw std::system_error(std::make_error_code(std::errc::io_error)); }), -1);
  EXPECT_EQ(result([] { throw 7; }), -1);
}

// Each frame gives the same bytes as the encoder, called directly.
TEST(ContractOfEncoders, TheirSettings) {
  struct Case {
    bool isJpeg;
    int width, height, bitrate, frameRate;
  };
  // JPEG's lowest and highest bitrate reach the ends of the quantizer's range.
  for (auto const& [isJpeg, width, height, bitrate, frameRate] : {Case{true, 96, 64, 200, 25},
                                                                  {true, 96, 64, 20000, 25},
                                                                  {true, 96, 64, 20000000, 25},
                                                                  {false, 64, 48, 50000, 10}}) {
    auto parameter = test::parameters(isJpeg ? 8 : 28, 0, width, height, 64, 48);
    parameter.m_Bitrate = bitrate;
    parameter.m_FrameRate = frameRate;
    Transcoder transcoder(&parameter);
    Floor encoder({isJpeg, AV_PIX_FMT_YUV420P, width, height, 64, 48, bitrate, frameRate});
    for (int i = 0; i < 50; ++i) {
      Bytes const picture = pictureOf(i, width, height);
      auto const expected = encoder.encode(picture.data());
      EXPECT_EQ(test::encoded(transcoder, picture.data()).bytes, Bytes(expected.begin(), expected.end()))
          << "frame " << i << " at " << bitrate;
    }
  }
}
