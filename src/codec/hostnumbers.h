// The pixel format and codec numbers that hosts use. They are fixed to the values of
// libavutil 54 and libavcodec 56; where newer FFmpeg versions differ, hostnumbers.cpp
// translates. Any thread.
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
}

namespace kavo::impl {

// The linked FFmpeg's value for the host's number; AV_PIX_FMT_NONE unless it is one of
// the ten formats that hosts may submit.
AVPixelFormat pixelFormatOf(std::int32_t hostNumber);

// The linked FFmpeg's value; AV_CODEC_ID_NONE for an unknown number.
AVCodecID codecIdOf(std::int32_t hostNumber);

}  // namespace kavo::impl
