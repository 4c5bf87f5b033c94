// What existing hosts rely on, as contract_test.py has what clients rely on. Numbers and settings are written out
// here, not taken from the library.
#include <gtest/gtest.h>

#include <new>
#include <system_error>
#include <vector>

#include "codec/encoding.h"
#include "codec/openh264library.h"
#include "interface/cinterface.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/jpegsource.h"

extern "C" {
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

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

TEST(ContractOfErrors, NothingElseEscapes) {
  auto const result = [](auto const& function) { return resultOf(function, [](char const*) {}); };
  EXPECT_EQ(result([] {}), 0);
  EXPECT_EQ(result([] { throw std::out_of_range("lookup"); }), 5);
  EXPECT_EQ(result([] { throw std::bad_alloc(); }), -1);
  EXPECT_EQ(result([] { throw std::system_error(std::make_error_code(std::errc::io_error)); }), -1);
  EXPECT_EQ(result([] { throw 7; }), -1);
}

// The same bytes as FFmpeg's encoder with these settings, of a frame scaled with this flag.
class ContractOfJpeg : public ::testing::TestWithParam<int> {};

TEST_P(ContractOfJpeg, TheEncodersSettings) {
  auto parameter = test::parameters(8, 0, 96, 64, 64, 48);
  parameter.m_Bitrate = GetParam();
  Transcoder transcoder(&parameter);
  AVCodecContext* const context = avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG));
  context->bit_rate = GetParam();
  context->bit_rate_tolerance = GetParam();
  context->width = 64;
  context->height = 48;
  context->time_base = {1, 1};
  context->pix_fmt = AV_PIX_FMT_YUVJ420P;
  context->qcompress = 1;
  context->qmin = 1;
  context->qmax = 100;
  av_opt_set(context->priv_data, "huffman", "default", 0);
  ASSERT_EQ(avcodec_open2(context, nullptr, nullptr), 0);
  SwsContext* const scaler = sws_getContext(96, 64, AV_PIX_FMT_YUV420P, 64, 48, AV_PIX_FMT_YUV420P, SWS_FAST_BILINEAR,
                                            nullptr, nullptr, nullptr);
  for (int i = 0; i < 20; ++i) {
    Bytes const picture = pictureOf(i, 96, 64);
    AVFrame* frame = av_frame_alloc();
    frame->format = AV_PIX_FMT_YUVJ420P;
    frame->width = 64;
    frame->height = 48;
    ASSERT_EQ(av_frame_get_buffer(frame, 0), 0);
    std::uint8_t const* const planes[] = {picture.data(), picture.data() + 96 * 64, picture.data() + 96 * 64 + 48 * 32,
                                          nullptr};
    int const strides[] = {96, 48, 48, 0};
    sws_scale(scaler, planes, strides, 0, 64, frame->data, frame->linesize);
    AVPacket* packet = av_packet_alloc();
    ASSERT_EQ(avcodec_send_frame(context, frame), 0);
    ASSERT_EQ(avcodec_receive_packet(context, packet), 0);
    EXPECT_EQ(test::encoded(transcoder, picture.data()).bytes, Bytes(packet->data, packet->data + packet->size)) << i;
    av_packet_free(&packet);
    av_frame_free(&frame);
  }
  sws_freeContext(scaler);
  AVCodecContext* owned = context;
  avcodec_free_context(&owned);
}

// The lowest and the highest reach the ends of the quantizer's range.
INSTANTIATE_TEST_SUITE_P(Bitrates, ContractOfJpeg, ::testing::Values(200, 20000, 20000000));

// The same bytes as OpenH264 with these settings.
TEST(ContractOfH264, TheEncodersSettings) {
  auto parameter = test::parameters(28, 0, 64, 48, 64, 48);
  parameter.m_Bitrate = 50000;
  parameter.m_FrameRate = 10;
  Transcoder transcoder(&parameter);
  auto const encoder = OpenH264Library().createEncoder();
  SEncParamBase base{};
  base.iUsageType = CAMERA_VIDEO_REAL_TIME;
  base.iPicWidth = 64;
  base.iPicHeight = 48;
  base.iTargetBitrate = 50000;
  base.iRCMode = RC_BITRATE_MODE;
  base.fMaxFrameRate = 10;
  for (auto [option, value] : {std::pair(ENCODER_OPTION_TRACE_LEVEL, int{WELS_LOG_QUIET}),
                               {ENCODER_OPTION_DATAFORMAT, int{videoFormatI420}},
                               {ENCODER_OPTION_IDR_INTERVAL, 20},
                               {ENCODER_OPTION_RC_FRAME_SKIP, 1},
                               {ENCODER_OPTION_SPS_PPS_ID_STRATEGY, 0}}) {
    ASSERT_EQ(encoder->SetOption(option, &value), 0);
    if (option == ENCODER_OPTION_TRACE_LEVEL) {
      ASSERT_EQ(encoder->Initialize(&base), 0);
    }
  }
  for (int i = 0; i < 50; ++i) {
    Bytes picture = pictureOf(i, 64, 48);
    SSourcePicture source{};
    source.iColorFormat = videoFormatI420;
    source.iPicWidth = 64;
    source.iPicHeight = 48;
    source.iStride[0] = 64;
    source.iStride[1] = source.iStride[2] = 32;
    source.pData[0] = picture.data();
    source.pData[1] = picture.data() + 64 * 48;
    source.pData[2] = picture.data() + 64 * 48 + 32 * 24;
    SFrameBSInfo info{};
    ASSERT_EQ(encoder->EncodeFrame(&source, &info), 0);
    Bytes expected;
    if (info.eFrameType != videoFrameTypeSkip) {  // without its first start code
      auto const* const begin = info.sLayerInfo[0].pBsBuf;
      expected.assign(begin + 4, begin + info.iFrameSizeInBytes);
    }
    EXPECT_EQ(test::encoded(transcoder, picture.data()).bytes, expected) << i;
  }
  encoder->Uninitialize();
}
