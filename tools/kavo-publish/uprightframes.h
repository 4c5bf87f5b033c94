// Turns frames upright, makes their pixels square, keeps one size and pixel format from the first
// to the last, and packs them as the library requires.
#pragma once

#include <cstdint>
#include <kavo/stream.hpp>
#include <vector>

#include "ffmpeg.h"
#include "options.h"

class UprightFrames {
 public:
  // Takes the size and format from the input, once: a source that comes back in another size is
  // scaled to the first one.
  void setUp(AVStream const& stream, AVCodecContext const& decoder);

  // From now on converts to this size and to full range, so that white is white in JPEG.
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

  int m_QuarterTurns = 0;  // clockwise, to turn the frame upright
  Size m_Size{};
  AVPixelFormat m_PixelFormat = AV_PIX_FMT_NONE;
  kavo::PixelFormat m_HostFormat = kavo::PixelFormat::Yuv420p;
  bool m_IsFullRange = false;
  CPtr<AVFilterGraph, avfilter_graph_free> m_Graph;
  AVFilterContext* m_In = nullptr;  // owned by the graph
  AVFilterContext* m_Out = nullptr;
  Size m_InSize{};  // the graph's input size
  int m_InFormat = AV_PIX_FMT_NONE;
  CPtr<AVFrame, av_frame_free> m_Filtered;
  std::vector<std::uint8_t> m_Packed;
};
