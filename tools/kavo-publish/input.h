// Reads video frames from anything that FFmpeg supports, in the form that the library accepts.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "ffmpeg.h"
#include "framereader.h"
#include "options.h"

using Note = std::function<void(std::string const&)>;

class Input {
 public:
  // Opens the input; reading ends when stop becomes true. note is called with remarks, on any
  // thread. Throws Failure.
  Input(std::string const& source, Options const& options, std::atomic<bool> const& stop, Note note);

  // The size of the frames that next() returns.
  Size size() const { return m_Reader->size(); }
  double frameRate() const { return m_FrameRate; }
  // The reader, if the input is decoded or copied; else null.
  DecodingReader* decoded() const { return dynamic_cast<DecodingReader*>(m_Reader.get()); }
  CopyingReader const* copied() const { return dynamic_cast<CopyingReader const*>(m_Reader.get()); }

  // The next frame (a raw one tightly packed), valid until the next call; empty at the end.
  // Throws Failure if a camera or URL is lost, or a frame cannot be copied.
  std::span<std::uint8_t const> next();
  // When the frame is due, in seconds after the first one.
  double time() const { return m_Time; }

 private:
  void open();
  int openFormat(AVInputFormat const* format, std::string const& url);
  void openReader();
  void guessFrameRate();
  bool read();
  bool goOn();
  bool rewind();
  bool reconnect();
  void noteTime();

  std::string m_Source;
  Options m_Options;
  std::atomic<bool> const& m_Stop;
  Note m_Note;
  CPtr<AVFormatContext, avformat_close_input> m_Format;
  CPtr<AVPacket, av_packet_free> m_Packet;
  std::unique_ptr<FrameReader> m_Reader;
  bool m_IsLive = false;
  int m_Stream = -1;
  int m_ReadError = 0;  // FFmpeg's error that ended reading
  double m_FrameRate = 0;
  long m_Count = 0;
  double m_Time = -1;
  std::optional<double> m_TimeOffset;  // from the input's clock to ours
};
