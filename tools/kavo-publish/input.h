// Video frames from anything that FFmpeg reads, as the library takes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ffmpeg.h"
#include "options.h"
#include "uprightframes.h"

using Note = std::function<void(std::string const&)>;

class Input {
 public:
  // Opens the input; reading from it ends when stop becomes true. Throws Failure.
  // note gets remarks, on any thread.
  Input(std::string const& source, Options const& options, std::atomic<bool> const& stop, Note note);

  // As it is to be seen: upright, with square pixels.
  Size size() const { return m_Frames.size(); }
  double frameRate() const { return m_FrameRate; }
  kavo::PixelFormat pixelFormat() const { return m_Frames.hostFormat(); }

  // The next frame, tightly packed, valid until the next call; nullptr at the end.
  // Throws Failure when a camera or a URL is lost.
  std::vector<std::uint8_t> const* next();
  // When the frame is due, in seconds since the first one.
  double time() const { return m_Time; }

 private:
  void open();
  void openDecoder();
  void guessFrameRate();
  bool decode();
  bool goOn();
  bool rewind();
  bool reconnect();
  void noteTime();

  std::string m_Source;
  Options m_Options;
  std::atomic<bool> const& m_Stop;
  Note m_Note;
  CPtr<AVFormatContext, avformat_close_input> m_Format;
  CPtr<AVCodecContext, avcodec_free_context> m_Decoder;
  CPtr<AVFrame, av_frame_free> m_Frame;
  CPtr<AVPacket, av_packet_free> m_Packet;
  bool m_IsLive = false;
  int m_Stream = -1;
  int m_ReadError = 0;  // that reading last ended with
  double m_FrameRate = 0;
  UprightFrames m_Frames;
  long m_Count = 0;
  double m_Time = -1;
  std::optional<double> m_TimeOffset;  // from the input's clock to ours
};
