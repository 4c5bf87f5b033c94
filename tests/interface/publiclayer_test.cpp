// The C++ layer: ownership, error messages, and the converter.
#include <gtest/gtest.h>

#include <kavo/convert.hpp>
#include <kavo/stream.hpp>
#include <optional>

#include "codec/guardedframe.h"
#include "freeport.h"

namespace {

kavo::Server serve() {
  std::optional<kavo::Server> server;
  startOnFreePort(server);
  return std::move(*server);
}

std::string refusalOf(kavo::Session& session, kavo::Codec codec, int width, int height) {
  kavo::VideoOptions video;
  video.width = width;
  video.height = height;
  video.codec = codec;
  try {
    session.createStream(video);
  } catch (kavo::Error const& error) {
    return error.what();
  }
  return "";
}

}  // namespace

TEST(PublicLayer, AMoveEndsWhatItReplacesAndNothingElse) {
  kavo::Server server = serve();
  kavo::Session first = server.createSession("first");
  kavo::Session second = server.createSession("second");
  first = std::move(second);
  EXPECT_EQ(first.name(), "second");
  EXPECT_NO_THROW(server.createSession("first"));
  EXPECT_THROW(server.createSession("second"), kavo::Error);
}

TEST(PublicLayer, AMovedServerEndsOnce) {
  {
    kavo::Server server = serve();
    kavo::Server moved = std::move(server);
    server = std::move(moved);
    EXPECT_NO_THROW(server.createSession("a"));
  }
  EXPECT_NO_THROW(serve());
}

TEST(PublicLayer, HandlesOfAnEndedServerAffectNoOther) {
  kavo::VideoOptions const video{.width = 64, .height = 48, .codec = kavo::Codec::Jpeg};
  auto const isUnknown = [](auto const& function) {
    try {
      function();
    } catch (kavo::Error const& error) {
      return error.result() == KV_UNKNOWN;
    }
    return false;
  };
  auto server = std::make_unique<kavo::Server>(serve());
  std::optional<kavo::Session> old(server->createSession("a"));
  kavo::Stream oldStream = old->createStream(video);
  std::vector<char> const frame(oldStream.frameSize());
  server.reset();
  server = std::make_unique<kavo::Server>(serve());
  // These get the handles of the old ones.
  kavo::Session session = server->createSession("a");
  kavo::Stream stream = session.createStream(video);
  EXPECT_TRUE(isUnknown([&] { oldStream.submit(frame.data(), frame.size()); }));
  EXPECT_TRUE(isUnknown([&] { oldStream.status(); }));
  EXPECT_TRUE(isUnknown([&] { old->createStream(video); }));
  old.reset();
  EXPECT_NO_THROW(stream.submit(frame.data(), frame.size()));
  EXPECT_EQ(stream.status().offered, 1U);
}

TEST(PublicLayer, ARefusalNamesTheNearestValidSize) {
  kavo::Server server = serve();
  kavo::Session session = server.createSession("a");
  EXPECT_NE(refusalOf(session, kavo::Codec::Jpeg, 642, 480).find("nearest to 642x480 is 640x480"), std::string::npos);
  EXPECT_NE(refusalOf(session, kavo::Codec::H264, 5000, 480).find("is 4096x480"), std::string::npos);
}

TEST(PublicLayer, TheConverterReadsNothingPastTheFrame) {
  struct Case {
    AVPixelFormat layout;
    int stride;
    std::size_t size;
  };
  for (auto const& [layout, stride, size] :
       {Case{AV_PIX_FMT_YUYV422, 0, 640 * 480 * 2},
        {AV_PIX_FMT_NV12, 0, 640 * 480 * 3 / 2},
        {AV_PIX_FMT_NV12, 704, 704 * 480 * 3 / 2},
        {AV_PIX_FMT_GRAY8, 0, 640 * 480},
        {AV_PIX_FMT_RGB24, 0, 640 * 480 * 3}}) {  // libswscale reads past the end of this one
    kavo::impl::test::GuardedFrame const frame(size);
    std::fill_n(frame.data(), size, std::uint8_t{128});
    kavo::Converter converter(layout, 640, 480, stride);
    EXPECT_EQ(converter.sourceSize(), size);
    auto const& converted = converter.convert(frame.data());
    EXPECT_NEAR(converted[0], 128, 12) << layout;
    EXPECT_NEAR(converted[640 * 480 - 1], converted[0], 1) << layout;
  }
}

// White stays white in JPEG; at an odd height, the last half row of chroma is converted too.
TEST(PublicLayer, TheConverterFillsTheFrameInItsRange) {
  for (auto const& [range, white, layout] : {std::tuple(kavo::Range::Full, 255, AV_PIX_FMT_RGB24),
                                             {kavo::Range::Full, 255, AV_PIX_FMT_BGR24},
                                             {kavo::Range::Limited, 235, AV_PIX_FMT_BGR24}}) {
    kavo::Converter converter(layout, 64, 47, 0, range);
    auto const& converted = converter.convert(std::vector<std::uint8_t>(64 * 47 * 3, 255).data());
    EXPECT_NEAR(converted[0], white, 1);
    EXPECT_NEAR(converted[64 * 47 - 1], white, 1);
    EXPECT_NEAR(converted.back(), 128, 1);
  }
  for (int const height : {1, 47}) {
    kavo::Converter converter(AV_PIX_FMT_YUYV422, 64, height);
    auto const& converted = converter.convert(std::vector<std::uint8_t>(64 * 47 * 2, 128).data());
    EXPECT_EQ(converted, std::vector<std::uint8_t>(kavo::frameSize(kavo::PixelFormat::Yuv420p, 64, height), 128));
  }
  EXPECT_THROW(kavo::Converter(AV_PIX_FMT_NONE, 64, 48), std::runtime_error);
  EXPECT_THROW(kavo::Converter(AV_PIX_FMT_VAAPI, 64, 48), std::runtime_error);
  EXPECT_THROW(kavo::Converter(AV_PIX_FMT_RGB24, 64, 48, -192), std::runtime_error);
  EXPECT_THROW(kavo::Converter(AV_PIX_FMT_RGB24, 64, 48, 191), std::runtime_error);
  EXPECT_THROW(kavo::Converter(AV_PIX_FMT_RGB24, 0, 48), std::runtime_error);
}
