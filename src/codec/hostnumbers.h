// The pixel format and codec numbers of the host's boundary. They are those of
// libavutil 54 and libavcodec 56, permanently; newer FFmpeg uses other values for
// some of them, translated in hostnumbers.cpp.
// Any thread.
#pragma once

#include <cstdint>

extern "C" {
#include <libavcodec/codec_id.h>
#include <libavutil/pixfmt.h>
}

namespace kavo::impl {

// The linked FFmpeg's value for the host's number; AV_PIX_FMT_NONE for a number
// that is none of the ten formats a host may submit.
AVPixelFormat pixelFormatOf(std::int32_t hostNumber);

// The linked FFmpeg's value; AV_CODEC_ID_NONE for a number the boundary does not know.
AVCodecID codecIdOf(std::int32_t hostNumber);

}  // namespace kavo::impl
