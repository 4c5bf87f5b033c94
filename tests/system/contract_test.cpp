// Everything that existing hosts and clients rely on, once each. Numbers and texts are written out here,
// not taken from the library.
#include <gtest/gtest.h>
#include <regex.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <string>
#include <system_error>
#include <vector>

#include "codec/encoding.h"
#include "codec/openh264library.h"
#include "interface/cinterface.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/jpegsource.h"
#include "system/records.h"
#include "system/rtspclient.h"

extern "C" {
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

using namespace kavo::impl;

namespace {

using Bytes = std::vector<std::uint8_t>;

template <class Record>
int call(int command, Record& record) {
  return kv_Stream(command, &record, static_cast<int>(sizeof record));
}

// A server with a stream of each codec.
class Contract : public ::testing::Test {
 protected:
  Contract() {
    for (auto const& [name, codec] : {std::pair("jpeg", 8), {"h264", 28}}) {
      auto session = sessionRecord(name);
      createStream(session, videoRecord(0, codec, 64, 64),
                   [](int command, auto& record) { EXPECT_EQ(call(command, record), KV_OK); });
    }
  }
  ~Contract() override { kv_Stream(KV_EXIT, nullptr, 0); }

  std::string url(std::string const& name) const { return "rtsp://127.0.0.1:" + std::to_string(m_Port) + "/" + name; }

  std::uint32_t const m_Port = onFreePort([](std::uint32_t port) { return call(KV_INIT, port) == KV_OK; });
};

// Whether the whole text matches the extended regular expression.
bool matches(std::string const& text, std::string const& pattern, regmatch_t* groups = nullptr, std::size_t count = 0) {
  regex_t expression;
  EXPECT_EQ(regcomp(&expression, ("^" + pattern + "$").c_str(), REG_EXTENDED), 0);
  bool const result = regexec(&expression, text.c_str(), count, groups, 0) == 0;
  regfree(&expression);
  return result;
}

// A frame of a moving picture, so that rate control has something to do.
Bytes pictureOf(int number, int width, int height) {
  Bytes picture(static_cast<std::size_t>(width * height * 3 / 2) + 4096, 128);
  for (int at = 0; at < width * height; ++at) {
    picture[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(at * at / 97 + number * 9);
  }
  return picture;
}

}  // namespace

TEST_F(Contract, Descriptions) {
  std::string const head =
      "v=0\r\no=- [0-9]+ 1 IN IP4 [0-9.]+\r\ns=the description\r\ni=the info\r\nt=0 0\r\na=tool:[^\r]*\r\n"
      "a=type:broadcast\r\na=control:\\*\r\na=range:npt=now-\r\na=x-qt-text-nam:the description\r\n"
      "a=x-qt-text-inf:the info\r\n";
  std::string const jpeg = head + "m=video 0 RTP/AVP 26\r\nc=IN IP4 0.0.0.0\r\nb=AS:64\r\na=control:track1\r\n";
  std::string const h264 =
      head +
      "m=video 0 RTP/AVP 96\r\nc=IN IP4 0.0.0.0\r\nb=AS:1048576\r\na=rtpmap:96 H264/90000\r\n"
      "a=fmtp:96 packetization-mode=1;profile-level-id=42[0-9A-F]{4};sprop-parameter-sets=Z0L[^,]+,aM[^,]+\r\n"
      "a=control:track1\r\n";
  for (auto const& [name, lines] : {std::pair("jpeg", jpeg), {"h264", h264}}) {
    auto const response = RtspClient(m_Port).request("DESCRIBE", url(name)).text;
    auto const body = response.substr(response.find("\r\n\r\n") + 4);
    EXPECT_TRUE(matches(body, lines)) << body;
  }
}

TEST_F(Contract, PortsTimeoutAndThread) {
  RtspClient client(m_Port);
  auto const udp = client.setUpOverUdp(url("jpeg"));
  std::string const transport = udp.header("Transport");
  regmatch_t ports[3];
  ASSERT_TRUE(matches(transport, ".*server_port=([0-9]+)-([0-9]+).*", ports, 3)) << transport;
  int const rtp = std::stoi(transport.substr(static_cast<std::size_t>(ports[1].rm_so)));
  EXPECT_EQ(rtp % 2, 0);
  EXPECT_GE(rtp, 6970);
  EXPECT_LT(rtp, 7500) << "as many as tests beside this one may hold";
  EXPECT_EQ(std::stoi(transport.substr(static_cast<std::size_t>(ports[2].rm_so))), rtp + 1);
  EXPECT_TRUE(udp.header("Session").ends_with(";timeout=65")) << udp.header("Session");
  bool found = false;
  for (auto const& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    found = found || name == "kavo-rtsp";
  }
  EXPECT_TRUE(found) << "no thread of that name";
}

// Tested only if port 8554 is free.
TEST(ContractOfInit, TheDefaultPort) {
  if (!RtspClient(8554).connected()) {
    ASSERT_EQ(kv_Stream(KV_INIT, nullptr, 0), KV_OK);
    EXPECT_TRUE(RtspClient(8554).connected());
    kv_Stream(KV_EXIT, nullptr, 0);
  }
}

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
