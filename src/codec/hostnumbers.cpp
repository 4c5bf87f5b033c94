#include "codec/hostnumbers.h"

#include <algorithm>
#include <iterator>

namespace kavo::impl {

namespace {

template <class Value>
struct Row {
  std::int32_t host;
  Value linked;
};

constexpr Row<AVPixelFormat> pixelFormats[] = {
    {HostAbgr, AV_PIX_FMT_ABGR},         {HostBgra, AV_PIX_FMT_BGRA},         {HostRgba, AV_PIX_FMT_RGBA},
    {HostArgb, AV_PIX_FMT_ARGB},         {HostRgb24, AV_PIX_FMT_RGB24},       {HostBgr24, AV_PIX_FMT_BGR24},
    {HostYuvj422p, AV_PIX_FMT_YUVJ422P}, {HostYuvj420p, AV_PIX_FMT_YUVJ420P}, {HostYuv422p, AV_PIX_FMT_YUV422P},
    {HostYuv420p, AV_PIX_FMT_YUV420P},
};

constexpr Row<AVCodecID> codecs[] = {
    {HostCodecNone, AV_CODEC_ID_NONE},
    {HostCodecMjpeg, AV_CODEC_ID_MJPEG},
    {HostCodecH264, AV_CODEC_ID_H264},
};

template <class Rows, class Value>
Value find(Rows const& rows, std::int32_t host, Value none) {
  auto const row = std::find_if(std::begin(rows), std::end(rows), [&](auto const& r) { return r.host == host; });
  return row == std::end(rows) ? none : row->linked;
}

}  // namespace

AVPixelFormat pixelFormatOf(std::int32_t hostNumber) { return find(pixelFormats, hostNumber, AV_PIX_FMT_NONE); }

AVCodecID codecIdOf(std::int32_t hostNumber) { return find(codecs, hostNumber, AV_CODEC_ID_NONE); }

}  // namespace kavo::impl
