/// Converts frames from layouts that Kavo Stream does not accept (YUYV, NV12, grey, ...)
/// to one that it does, with FFmpeg's libswscale. Link kavo::convert (CMake) or
/// kavo_convert (pkg-config).
#ifndef KAVO_CONVERT_HPP
#define KAVO_CONVERT_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <kavo/stream.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace kavo {

/// The range of the converted values, from black to white.
enum class Range {
  Limited,  ///< 16 to 235: for H.264
  Full      ///< 0 to 255: for JPEG published in the size of the converted frames, so that white is white
};

/// Converts the frames of one source. Used by one thread at a time.
class Converter {
 public:
  /// Converts to YUV 4:2:0. layout (any that libswscale reads: packed and planar YUV, RGB, grey, Bayer),
  /// width and height (pixels) describe the source; stride is the number of bytes per row of its first
  /// plane, 0 for tightly packed rows. Throws std::runtime_error if the values are invalid or libswscale
  /// cannot convert the layout.
  Converter(AVPixelFormat layout, int width, int height, int stride = 0, Range range = Range::Limited)
      : m_Layout(layout), m_Width(width), m_Height(height) {
    AVPixFmtDescriptor const* const description = av_pix_fmt_desc_get(layout);
    if (description == nullptr || sws_isSupportedInput(layout) == 0 || width <= 0 || height <= 0 ||
        av_image_fill_linesizes(m_Strides, layout, width) < 0) {
      throw std::runtime_error("libswscale cannot convert this layout");
    }
    if (stride != 0 && stride < m_Strides[0]) {
      throw std::runtime_error("a stride of " + std::to_string(stride) + " bytes, but a row has " +
                               std::to_string(m_Strides[0]));
    }
    if (stride > m_Strides[0]) {
      // The other planes keep their proportion to the first.
      for (int i = 3; i >= 0; --i) {
        m_Strides[i] = m_Strides[i] * stride / m_Strides[0];
      }
    }
    m_IsPacked422 = description->log2_chroma_w == 1 && description->log2_chroma_h == 0 &&
                    (description->flags & AV_PIX_FMT_FLAG_PLANAR) == 0;
    // Without accurate rounding, its fast path for BGR24 supports only limited range.
    int const flags = range == Range::Full ? SWS_POINT | SWS_ACCURATE_RND : SWS_POINT;
    m_Scaler.reset(
        sws_getContext(width, height, layout, width, height, AV_PIX_FMT_YUV420P, flags, nullptr, nullptr, nullptr));
    if (!m_Scaler) {
      throw std::runtime_error("libswscale cannot convert this layout");
    }
    setRange(range);
    m_Frame.resize(frameSize(format(), width, height));
    std::uint8_t* planes[4] = {};
    m_SourceSize = static_cast<std::size_t>(av_image_fill_pointers(planes, layout, height, nullptr, m_Strides));
    m_Source.resize(m_SourceSize + overread);
  }

  /// The format of the converted frames.
  static constexpr PixelFormat format() { return PixelFormat::Yuv420p; }

  /// The size of a source frame in bytes; convert() does not read past it.
  std::size_t sourceSize() const noexcept { return m_SourceSize; }

  /// Converts one frame of sourceSize() bytes; the result is valid until the next call.
  std::vector<std::uint8_t> const& convert(std::uint8_t const* frame) {
    // libswscale may read past the end, so it gets a padded copy.
    std::copy_n(frame, m_SourceSize, m_Source.begin());
    std::uint8_t* from[4] = {};
    av_image_fill_pointers(from, m_Layout, m_Height, m_Source.data(), m_Strides);
    std::uint8_t* to[4] = {};
    int toStrides[4] = {};
    av_image_fill_arrays(to, toStrides, m_Frame.data(), AV_PIX_FMT_YUV420P, m_Width, m_Height, 1);
    sws_scale(m_Scaler.get(), from, m_Strides, 0, m_Height, to, toStrides);
    if (m_IsPacked422 && m_Height % 2 != 0) {
      repeatLastChromaRow(to, toStrides);
    }
    return m_Frame;
  }

 private:
  struct Free {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
  };

  static constexpr std::size_t overread = 64;

  void setRange(Range range) {
    int* from = nullptr;
    int* to = nullptr;
    int fromRange = 0;
    int toRange = 0;
    int brightness = 0;
    int contrast = 0;
    int saturation = 0;
    if (sws_getColorspaceDetails(m_Scaler.get(), &from, &fromRange, &to, &toRange, &brightness, &contrast,
                                 &saturation) >= 0) {
      sws_setColorspaceDetails(m_Scaler.get(), from, fromRange, to, range == Range::Full ? 1 : 0, brightness, contrast,
                               saturation);
    }
  }

  // At odd heights libswscale does not write the last chroma row.
  void repeatLastChromaRow(std::uint8_t* const planes[4], int const strides[4]) const {
    std::ptrdiff_t const last = m_Height / 2;
    for (int plane : {1, 2}) {
      std::uint8_t* const row = planes[plane] + last * strides[plane];
      if (last > 0) {
        std::copy_n(row - strides[plane], strides[plane], row);
      } else {
        std::fill_n(row, strides[plane], std::uint8_t{128});
      }
    }
  }

  AVPixelFormat m_Layout;
  int m_Width;
  int m_Height;
  int m_Strides[4] = {};
  bool m_IsPacked422 = false;
  std::size_t m_SourceSize = 0;
  std::vector<std::uint8_t> m_Source;
  std::unique_ptr<SwsContext, Free> m_Scaler;
  std::vector<std::uint8_t> m_Frame;
};

}  // namespace kavo

#endif  // KAVO_CONVERT_HPP
