#include "uprightframes.h"

#include <algorithm>
#include <cmath>
#include <utility>

extern "C" {
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace {

// The layouts that the library accepts.
constexpr std::pair<AVPixelFormat, kavo::PixelFormat> hostFormats[] = {
    {AV_PIX_FMT_YUV420P, kavo::PixelFormat::Yuv420p}, {AV_PIX_FMT_YUVJ420P, kavo::PixelFormat::Yuvj420p},
    {AV_PIX_FMT_YUV422P, kavo::PixelFormat::Yuv422p}, {AV_PIX_FMT_YUVJ422P, kavo::PixelFormat::Yuvj422p},
    {AV_PIX_FMT_RGB24, kavo::PixelFormat::Rgb24},     {AV_PIX_FMT_BGR24, kavo::PixelFormat::Bgr24},
    {AV_PIX_FMT_ARGB, kavo::PixelFormat::Argb},       {AV_PIX_FMT_RGBA, kavo::PixelFormat::Rgba},
    {AV_PIX_FMT_ABGR, kavo::PixelFormat::Abgr},       {AV_PIX_FMT_BGRA, kavo::PixelFormat::Bgra},
};

// Telephones store films as the sensor was oriented, with the rotation as metadata.
int quarterTurnsOf(AVCodecParameters const& parameters) {
  AVPacketSideData const* matrix =
      av_packet_side_data_get(parameters.coded_side_data, parameters.nb_coded_side_data, AV_PKT_DATA_DISPLAYMATRIX);
  if (matrix == nullptr) {
    return 0;
  }
  double const counterclockwise = av_display_rotation_get(reinterpret_cast<std::int32_t const*>(matrix->data));
  return std::isnan(counterclockwise) ? 0 : (static_cast<int>(std::lround(-counterclockwise / 90)) % 4 + 4) % 4;
}

[[noreturn]] void failConverting(int error) {
  throw Failure("FFmpeg cannot convert this input's frames (" + reasonOf(error) + "): choose another input");
}

}  // namespace

void UprightFrames::setUp(AVStream const& stream, AVCodecContext const& decoder) {
  m_QuarterTurns = quarterTurnsOf(*stream.codecpar);
  m_Graph.reset();
  if (m_PixelFormat != AV_PIX_FMT_NONE) {
    return;
  }
  AVRational aspect = stream.sample_aspect_ratio.num > 0 ? stream.sample_aspect_ratio : decoder.sample_aspect_ratio;
  double const stretch = aspect.num > 0 && aspect.den > 0 ? av_q2d(aspect) : 1;
  m_Size = {std::max(1, static_cast<int>(std::lround(decoder.width * stretch))), decoder.height};
  if (m_QuarterTurns % 2 != 0) {
    std::swap(m_Size.width, m_Size.height);
  }
  m_PixelFormat = AV_PIX_FMT_YUV420P;
  for (auto const& [format, number] : hostFormats) {
    if (format == decoder.pix_fmt) {
      m_PixelFormat = format;
      m_HostFormat = number;
    }
  }
  m_Filtered.reset(av_frame_alloc());
  allocate();
}

void UprightFrames::convertForJpeg(Size size) {
  m_Size = size;
  m_PixelFormat = AV_PIX_FMT_YUV420P;
  m_HostFormat = kavo::PixelFormat::Yuv420p;
  m_IsFullRange = true;
  m_Graph.reset();
  allocate();
}

void UprightFrames::allocate() {
  int const bytes = av_image_get_buffer_size(m_PixelFormat, m_Size.width, m_Size.height, 1);
  if (bytes < 0) {
    failConverting(bytes);
  }
  m_Packed.resize(static_cast<std::size_t>(bytes));
}

std::vector<std::uint8_t> const& UprightFrames::pack(AVFrame& frame) {
  AVFrame const* packed = &frame;
  if (!isAsWanted(frame)) {
    prepareFor(frame);
    av_frame_unref(m_Filtered.get());
    int error = av_buffersrc_add_frame_flags(m_In, &frame, AV_BUFFERSRC_FLAG_KEEP_REF);
    if (error >= 0) {
      error = av_buffersink_get_frame(m_Out, m_Filtered.get());
    }
    if (error < 0) {
      failConverting(error);
    }
    packed = m_Filtered.get();
  }
  av_image_copy_to_buffer(m_Packed.data(), static_cast<int>(m_Packed.size()), packed->data, packed->linesize,
                          m_PixelFormat, m_Size.width, m_Size.height, 1);
  return m_Packed;
}

bool UprightFrames::isAsWanted(AVFrame const& frame) const {
  bool const isInRange = !m_IsFullRange || frame.color_range == AVCOL_RANGE_JPEG;
  return m_QuarterTurns == 0 && isInRange && frame.format == m_PixelFormat && Size{frame.width, frame.height} == m_Size;
}

void UprightFrames::prepareFor(AVFrame const& frame) {
  if (m_Graph && m_InSize == Size{frame.width, frame.height} && m_InFormat == frame.format) {
    return;
  }
  m_InSize = {frame.width, frame.height};
  m_InFormat = frame.format;
  m_Graph.reset(avfilter_graph_alloc());
  std::string const in = "video_size=" + std::to_string(frame.width) + "x" + std::to_string(frame.height) +
                         ":pix_fmt=" + std::to_string(frame.format) +
                         ":time_base=1/25:pixel_aspect=1/1:range=" + std::to_string(frame.color_range) +
                         ":colorspace=" + std::to_string(frame.colorspace);
  AVFilterInOut* inputs = nullptr;
  AVFilterInOut* outputs = nullptr;
  std::string const description = "buffer@in=" + in + "," + filters() + ",buffersink@out";
  int error = avfilter_graph_parse2(m_Graph.get(), description.c_str(), &inputs, &outputs);
  avfilter_inout_free(&inputs);
  avfilter_inout_free(&outputs);
  if (error >= 0) {
    error = avfilter_graph_config(m_Graph.get(), nullptr);
  }
  if (error < 0) {
    m_Graph.reset();
    failConverting(error);
  }
  m_In = avfilter_graph_get_filter(m_Graph.get(), "buffer@in");
  m_Out = avfilter_graph_get_filter(m_Graph.get(), "buffersink@out");
}

std::string UprightFrames::filters() const {
  static constexpr char const* turns[] = {"", "transpose=clock,", "hflip,vflip,", "transpose=cclock,"};
  return turns[m_QuarterTurns] + ("scale=" + std::to_string(m_Size.width)) + ":" + std::to_string(m_Size.height) +
         (m_IsFullRange ? ":out_range=full:out_color_matrix=bt601" : "") +
         ",format=" + av_get_pix_fmt_name(m_PixelFormat);
}
