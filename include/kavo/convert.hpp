/// Converts frames in layouts that Kavo Stream does not take (YUYV, NV12, grey, ...)
/// into one that it does, with FFmpeg's libswscale. Link kavo::convert (CMake) or
/// kavo_convert (pkg-config).
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

/// One object per source of frames, used by one thread at a time.
class Converter {
 public:
  /// Converts to YUV 4:2:0. layout, width and height (pixels) are the source's; stride
  /// is the bytes per row of its first plane, 0 for tightly packed rows. Throws
  /// std::runtime_error if libswscale cannot convert the layout.
  Converter(AVPixelFormat layout, int width, int height, int stride = 0)
      : m_Layout(layout),
        m_Width(width),
        m_Height(height),
        m_Scaler(sws_getContext(width, height, layout, width, height, AV_PIX_FMT_YUV420P, SWS_POINT, nullptr, nullptr,
                                nullptr)),
        m_Frame(frameSize(format(), width, height)) {
    std::uint8_t* planes[4] = {};
    if (!m_Scaler || av_image_fill_linesizes(m_Strides, layout, width) < 0) {
      throw std::runtime_error("libswscale cannot convert this layout");
    }
    if (stride > m_Strides[0]) {
      // The other planes keep their proportion to the first.
      for (int i = 3; i >= 0; --i) {
        m_Strides[i] = m_Strides[i] * stride / m_Strides[0];
      }
    }
    m_SourceSize = static_cast<std::size_t>(av_image_fill_pointers(planes, layout, height, nullptr, m_Strides));
    m_Source.resize(m_SourceSize + overread);
  }

  /// The format of the converted frames.
  static constexpr PixelFormat format() { return PixelFormat::Yuv420p; }

  /// Bytes that convert() reads of a frame, and never past them.
  std::size_t sourceSize() const noexcept { return m_SourceSize; }

  /// Converts one frame of sourceSize() bytes; the result is valid until the next call.
  std::vector<std::uint8_t> const& convert(std::uint8_t const* frame) {
    // libswscale may read past the end; it does so in a copy that has room for it.
    std::copy_n(frame, m_SourceSize, m_Source.begin());
    std::uint8_t* from[4] = {};
    av_image_fill_pointers(from, m_Layout, m_Height, m_Source.data(), m_Strides);
    std::uint8_t* to[4] = {};
    int toStrides[4] = {};
    av_image_fill_arrays(to, toStrides, m_Frame.data(), AV_PIX_FMT_YUV420P, m_Width, m_Height, 1);
    sws_scale(m_Scaler.get(), from, m_Strides, 0, m_Height, to, toStrides);
    return m_Frame;
  }

 private:
  struct Free {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
  };

  static constexpr std::size_t overread = 64;

  AVPixelFormat m_Layout;
  int m_Width;
  int m_Height;
  int m_Strides[4] = {};
  std::size_t m_SourceSize = 0;
  std::vector<std::uint8_t> m_Source;
  std::unique_ptr<SwsContext, Free> m_Scaler;
  std::vector<std::uint8_t> m_Frame;
};

}  // namespace kavo

#endif  // KAVO_CONVERT_HPP
