// Publishes frames from the host's own encoder, here FFmpeg's libx264 instead of hardware. It runs
// only while somebody watches, and makes a key frame when a viewer needs one.
//
//   c++ -std=c++17 encoded.cpp -o encoded -lkavo_stream -lavcodec -lavutil
//   ./encoded [PORT] [SECONDS]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <kavo/stream.hpp>
#include <memory>
#include <stdexcept>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/opt.h>
}

namespace {

constexpr int framesPerSecond = 25;

class Encoder {
 public:
  Encoder() {
    AVCodec const* const codec = avcodec_find_encoder_by_name("libx264");
    if (codec == nullptr) {
      throw std::runtime_error("this FFmpeg has no libx264");
    }
    m_Context.reset(avcodec_alloc_context3(codec));
    m_Context->width = 640;
    m_Context->height = 480;
    m_Context->pix_fmt = AV_PIX_FMT_YUV420P;
    m_Context->time_base = {1, framesPerSecond};
    m_Context->bit_rate = 1000000;
    m_Context->gop_size = 10 * framesPerSecond;                  // viewers request key frames as needed
    m_Context->max_b_frames = 0;                                 // B-frames are not supported
    av_opt_set(m_Context->priv_data, "tune", "zerolatency", 0);  // a packet for each frame, at once
    av_opt_set(m_Context->priv_data, "forced-idr", "1", 0);
    m_Frame->format = m_Context->pix_fmt;
    m_Frame->width = m_Context->width;
    m_Frame->height = m_Context->height;
    if (avcodec_open2(m_Context.get(), codec, nullptr) < 0 || av_frame_get_buffer(m_Frame.get(), 0) < 0) {
      throw std::runtime_error("libx264 does not start");
    }
  }

  // An access unit in Annex B form, valid until the next call.
  AVPacket const& encode(int number, bool keyFrame) {
    draw(number);
    m_Frame->pts = number;
    m_Frame->pict_type = keyFrame ? AV_PICTURE_TYPE_I : AV_PICTURE_TYPE_NONE;
    av_packet_unref(m_Packet.get());
    if (avcodec_send_frame(m_Context.get(), m_Frame.get()) < 0 ||
        avcodec_receive_packet(m_Context.get(), m_Packet.get()) < 0) {
      throw std::runtime_error("libx264 fails");
    }
    return *m_Packet;
  }

 private:
  // A ramp that moves to the left.
  void draw(int number) {
    av_frame_make_writable(m_Frame.get());
    for (int y = 0; y < m_Frame->height; ++y) {
      for (int x = 0; x < m_Frame->width; ++x) {
        m_Frame->data[0][y * m_Frame->linesize[0] + x] = static_cast<std::uint8_t>(x + 3 * number);
      }
    }
    for (int plane : {1, 2}) {
      std::fill_n(m_Frame->data[plane], m_Frame->linesize[plane] * m_Frame->height / 2, std::uint8_t{128});
    }
  }

  struct Free {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  };

  std::unique_ptr<AVCodecContext, Free> m_Context;
  std::unique_ptr<AVFrame, Free> m_Frame{av_frame_alloc()};
  std::unique_ptr<AVPacket, Free> m_Packet{av_packet_alloc()};
};

}  // namespace

int main(int argc, char** argv) try {
  kavo::Server server(static_cast<std::uint16_t>(argc > 1 ? std::atoi(argv[1]) : 8554));
  kavo::Session session = server.createSession("encoded");
  kavo::EncodedStream stream = session.createEncodedStream({kavo::Codec::H264});
  std::printf("%s\n", session.url().c_str());
  std::fflush(stdout);

  std::unique_ptr<Encoder> encoder;
  bool keyFrameWanted = true;
  int const frames = argc > 2 ? std::atoi(argv[2]) * framesPerSecond : -1;
  for (int number = 0; number != frames; ++number) {
    if (!stream.status().wantsFrame) {
      encoder.reset();  // nobody watches: it costs nothing
      keyFrameWanted = true;
    } else {
      if (!encoder) {
        encoder = std::make_unique<Encoder>();
      }
      AVPacket const& packet = encoder->encode(number, keyFrameWanted);
      keyFrameWanted = stream.submit(packet.data, static_cast<std::size_t>(packet.size)).keyFrame;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1000 / framesPerSecond));
  }
} catch (std::exception const& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
