// Video frames from anything that FFmpeg reads, as the library takes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "options.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

class Input {
 public:
  // Opens the input; reading from it ends when stop becomes true. Throws Failure.
  Input(std::string const& source, Options const& options, std::atomic<bool> const& stop);

  Size size() const { return {m_Decoder->width, m_Decoder->height}; }
  int frameRate() const { return m_FrameRate; }
  kavo::PixelFormat pixelFormat() const { return m_HostFormat; }

  // The next frame, tightly packed, valid until the next call; nothing at the end.
  std::optional<std::vector<std::uint8_t> const*> next();
  // When the frame is due, in seconds since the first one.
  double time() const { return m_Time; }

 private:
  template <auto Free>
  struct Freed {
    template <class T>
    void operator()(T* object) const {
      Free(&object);
    }
  };
  struct FreeScaler {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
  };

  void open(std::string const& source, Options const& options);
  void openDecoder(std::string const& name);
  void choosePixelFormat();
  bool decode();
  bool rewind();
  void pack();
  void noteTime();

  std::atomic<bool> const& m_Stop;
  bool m_Loop;
  std::unique_ptr<AVFormatContext, Freed<avformat_close_input>> m_Format;
  std::unique_ptr<AVCodecContext, Freed<avcodec_free_context>> m_Decoder;
  std::unique_ptr<AVFrame, Freed<av_frame_free>> m_Frame;
  std::unique_ptr<AVPacket, Freed<av_packet_free>> m_Packet;
  std::unique_ptr<SwsContext, FreeScaler> m_Scaler;
  int m_Stream = -1;
  int m_FrameRate = 0;
  AVPixelFormat m_PixelFormat = AV_PIX_FMT_NONE;
  kavo::PixelFormat m_HostFormat = kavo::PixelFormat::Yuv420p;
  std::vector<std::uint8_t> m_Packed;
  double m_Time = -1;
  std::optional<double> m_TimeOffset;  // from the input's clock to ours
};
