#include "codec/hostnumbers.h"

#include <algorithm>
#include <iterator>

#include "kavo_stream.h"

namespace kavo::impl {

namespace {

template <class Value>
struct Row {
  std::int32_t host;
  Value linked;
};

constexpr Row<AVPixelFormat> pixelFormats[] = {
    {KV_ABGR, AV_PIX_FMT_ABGR},         {KV_BGRA, AV_PIX_FMT_BGRA},         {KV_RGBA, AV_PIX_FMT_RGBA},
    {KV_ARGB, AV_PIX_FMT_ARGB},         {KV_RGB24, AV_PIX_FMT_RGB24},       {KV_BGR24, AV_PIX_FMT_BGR24},
    {KV_YUVJ422P, AV_PIX_FMT_YUVJ422P}, {KV_YUVJ420P, AV_PIX_FMT_YUVJ420P}, {KV_YUV422P, AV_PIX_FMT_YUV422P},
    {KV_YUV420P, AV_PIX_FMT_YUV420P},
};

constexpr Row<AVCodecID> codecs[] = {
    {KV_CODEC_RAW, AV_CODEC_ID_NONE},
    {KV_CODEC_MJPEG, AV_CODEC_ID_MJPEG},
    {KV_CODEC_H264, AV_CODEC_ID_H264},
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
