#include "codec/hostnumbers.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/pixdesc.h>
}

using namespace kavo;

// By name, so that a renumbering in a coming FFmpeg is caught.
TEST(HostNumbers, PixelFormatsKeepTheirNumbers) {
  std::pair<int, char const*> const expected[] = {
      {0, "yuv420p"},   {2, "rgb24"}, {3, "bgr24"}, {4, "yuv422p"}, {12, "yuvj420p"},
      {13, "yuvj422p"}, {27, "argb"}, {28, "rgba"}, {29, "abgr"},   {30, "bgra"},
  };
  for (auto const& [number, name] : expected) {
    EXPECT_STREQ(av_get_pix_fmt_name(pixelFormatOf(number)), name) << number;
  }
}

TEST(HostNumbers, OtherPixelFormatsAreUnknown) {
  for (int const number : {-1, 1, 5, 8, 11, 14, 25, 26, 31, 1000}) {
    EXPECT_EQ(pixelFormatOf(number), AV_PIX_FMT_NONE) << number;
  }
}

TEST(HostNumbers, CodecsKeepTheirNumbers) {
  EXPECT_STREQ(avcodec_get_name(codecIdOf(8)), "mjpeg");
  EXPECT_STREQ(avcodec_get_name(codecIdOf(28)), "h264");
  for (int const number : {0, 7, 13, 27}) {
    EXPECT_EQ(codecIdOf(number), AV_CODEC_ID_NONE) << number;
  }
}
