// Frames in a layout that Kavo Stream does not take (YUYV, NV12, grey, ...), made
// into one that it does, with FFmpeg's libswscale. Link with -lswscale -lavutil.
#ifndef KAVO_CONVERT_HPP
#define KAVO_CONVERT_HPP

#include <algorithm>
#include <cstdint>
#include <kavo/stream.hpp>
#include <memory>
#include <stdexcept>
#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace kavo {

// One object for each source of frames; one thread at a time.
class Converter {
 public:
  // From frames of FFmpeg's layout, of which each line has this many bytes in its
  // first plane (0: as many as its pixels), to YUV 4:2:0.
  Converter(AVPixelFormat layout, int width, int height, int stride = 0)
      : m_Layout(layout),
        m_Width(width),
        m_Height(height),
        m_Stride(stride),
        m_Scaler(sws_getContext(width, height, layout, width, height, AV_PIX_FMT_YUV420P, SWS_POINT, nullptr, nullptr,
                                nullptr)),
        m_Frame(frameSize(format(), width, height)) {
    if (!m_Scaler) {
      throw std::runtime_error("libswscale cannot convert this layout");
    }
  }

  static constexpr PixelFormat format() { return PixelFormat::Yuv420p; }

  // The frame, converted; valid until the next call. libswscale may read up to 64
  // bytes past the frame's end, which must be readable.
  std::vector<std::uint8_t> const& convert(std::uint8_t const* frame) {
    std::uint8_t* from[4] = {};
    int fromStrides[4] = {};
    av_image_fill_arrays(from, fromStrides, frame, m_Layout, m_Width, m_Height, 1);
    if (m_Stride > fromStrides[0]) {
      // Planes behind the first keep their proportion to it.
      int strides[4];
      for (int i = 0; i < 4; ++i) {
        strides[i] = fromStrides[0] > 0 ? fromStrides[i] * m_Stride / fromStrides[0] : 0;
      }
      av_image_fill_pointers(from, m_Layout, m_Height, const_cast<std::uint8_t*>(frame), strides);
      std::copy(strides, strides + 4, fromStrides);
    }
    std::uint8_t* to[4] = {};
    int toStrides[4] = {};
    av_image_fill_arrays(to, toStrides, m_Frame.data(), AV_PIX_FMT_YUV420P, m_Width, m_Height, 1);
    sws_scale(m_Scaler.get(), from, fromStrides, 0, m_Height, to, toStrides);
    return m_Frame;
  }

 private:
  struct Free {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
  };

  AVPixelFormat m_Layout;
  int m_Width;
  int m_Height;
  int m_Stride;
  std::unique_ptr<SwsContext, Free> m_Scaler;
  std::vector<std::uint8_t> m_Frame;
};

}  // namespace kavo

#endif  // KAVO_CONVERT_HPP
