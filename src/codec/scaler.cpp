#include "codec/scaler.h"

#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cstring>

#include "base/streamexception.h"

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace kavo::impl {

namespace {

// libswscale's vector code reads, but does not use, up to this many bytes past a plane's
// end (60 were measured).
constexpr std::size_t overread = 64;

std::size_t bytesLeftInPage(std::uint8_t const* end) {
  static std::size_t const pageSize = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  return (pageSize - std::bit_cast<std::uintptr_t>(end) % pageSize) % pageSize;
}

int planeCount(AVFrame const& frame) { return frame.data[1] != nullptr ? 3 : 1; }

}  // namespace

Scaler::Scaler(int srcWidth, int srcHeight, AVPixelFormat srcFormat, int dstWidth, int dstHeight)
    : m_SwsContext(sws_getContext(srcWidth, srcHeight, srcFormat, dstWidth, dstHeight, AV_PIX_FMT_YUV420P,
                                  SWS_FAST_BILINEAR, nullptr, nullptr, nullptr)),
      m_ChromaRowShift(av_pix_fmt_desc_get(srcFormat)->log2_chroma_h) {
  if (!m_SwsContext) {
    throw StreamException("SWS get context failed", ErrorResource);
  }
}

void Scaler::scale(AVFrame const& source, std::uint8_t const* frameEnd, AVFrame& destination) {
  Slice whole{{}, 0, source.height};
  std::copy_n(source.data, 4, whole.planes);
  // Mapped memory ends at a page boundary: if enough of the last page follows the frame,
  // an over-read stays in mapped memory.
  if (bytesLeftInPage(frameEnd) >= overread) {
    scaleSlice(whole, source.linesize, destination);
    return;
  }
  int const tail = tailRows(source);
  if (tail < source.height) {
    Slice head = whole;
    head.rows = source.height - tail;
    scaleSlice(head, source.linesize, destination);
  }
  scaleSlice(copyOfTail(source, tail), source.linesize, destination);
}

// How many rows at the end must be scaled from a copy so that over-reads from the rows
// above stay inside the frame. libswscale requires slices to start at an even row.
int Scaler::tailRows(AVFrame const& source) const {
  int const lastPlane = planeCount(source) - 1;
  int const shift = lastPlane > 0 ? m_ChromaRowShift : 0;
  int const needed = static_cast<int>(overread) / source.linesize[lastPlane] + 1;
  int const rows = (needed + 1) << shift;
  int const firstRow = (source.height - rows) & ~1;
  return firstRow > 0 ? source.height - firstRow : source.height;
}

Scaler::Slice Scaler::copyOfTail(AVFrame const& source, int rows) {
  Slice slice{{}, source.height - rows, rows};
  std::size_t offsets[4] = {};
  std::size_t size = 0;
  for (int plane = 0; plane < planeCount(source); ++plane) {
    int const shift = plane > 0 ? m_ChromaRowShift : 0;
    int const first = slice.firstRow >> shift;
    int const last = AV_CEIL_RSHIFT(source.height, shift);
    std::size_t const stride = static_cast<std::size_t>(source.linesize[plane]);
    std::size_t const bytes = stride * static_cast<std::size_t>(last - first);
    offsets[plane] = size;
    m_Tail.resize(std::max(m_Tail.size(), size + bytes + overread));
    std::memcpy(m_Tail.data() + size, source.data[plane] + stride * static_cast<std::size_t>(first), bytes);
    size += bytes + overread;
  }
  for (int plane = 0; plane < planeCount(source); ++plane) {
    slice.planes[plane] = m_Tail.data() + offsets[plane];
  }
  return slice;
}

void Scaler::scaleSlice(Slice const& slice, int const* strides, AVFrame& destination) {
  sws_scale(m_SwsContext.get(), slice.planes, strides, slice.firstRow, slice.rows, destination.data,
            destination.linesize);
}

}  // namespace kavo::impl
