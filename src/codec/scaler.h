// Converts one raw frame to planar 4:2:0 and resizes it, without reading outside the
// frame. Host thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/cptr.h"

extern "C" {
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace kavo::impl {

class Scaler {
 public:
  // Throws "SWS get context failed" when libswscale cannot do the conversion.
  Scaler(int srcWidth, int srcHeight, AVPixelFormat srcFormat, int dstWidth, int dstHeight);

  // The source's planes point into the host's memory, tightly packed; frameEnd is one
  // past its end.
  void scale(AVFrame const& source, std::uint8_t const* frameEnd, AVFrame& destination);

 private:
  struct Slice {
    std::uint8_t const* planes[4] = {};
    int firstRow = 0;
    int rows = 0;
  };

  int tailRows(AVFrame const& source) const;
  Slice copyOfTail(AVFrame const& source, int rows);
  void scaleSlice(Slice const& slice, int const* strides, AVFrame& destination);

  CPtr<SwsContext, sws_freeContext> m_SwsContext;
  int m_ChromaRowShift;  // log2 of frame rows per chroma row
  std::vector<std::uint8_t> m_Tail;
};

}  // namespace kavo::impl
