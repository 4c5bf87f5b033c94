// Frames as they are to be seen (upright, with square pixels, of one size and
// pixel format from the first to the last), packed as the library takes them.
#pragma once

#include <cstdint>
#include <kavo/stream.hpp>
#include <vector>

#include "ffmpeg.h"
#include "options.h"

class UprightFrames {
 public:
  // Takes over what the input's own figures say, once: a source that comes back in
  // another size is scaled to the first one's.
  void setUp(AVStream const& stream, AVCodecContext const& decoder);

  // From now on in this size and in full range, as JPEG shows white as white.
  void convertForJpeg(Size size);

  Size size() const { return m_Size; }
  kavo::PixelFormat hostFormat() const { return m_HostFormat; }

  // Valid until the next call. Throws Failure.
  std::vector<std::uint8_t> const& pack(AVFrame& frame);

 private:
  bool isAsWanted(AVFrame const& frame) const;
  void prepareFor(AVFrame const& frame);
  void allocate();
  std::string filters() const;

  int m_QuarterTurns = 0;  // clockwise, that put the frame upright
  Size m_Size{};
  AVPixelFormat m_PixelFormat = AV_PIX_FMT_NONE;
  kavo::PixelFormat m_HostFormat = kavo::PixelFormat::Yuv420p;
  bool m_IsFullRange = false;
  CPtr<AVFilterGraph, avfilter_graph_free> m_Graph;
  AVFilterContext* m_In = nullptr;  // in the graph, which owns them
  AVFilterContext* m_Out = nullptr;
  Size m_InSize{};  // that the graph is made for
  int m_InFormat = AV_PIX_FMT_NONE;
  CPtr<AVFrame, av_frame_free> m_Filtered;
  std::vector<std::uint8_t> m_Packed;
};
