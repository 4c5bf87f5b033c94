// live555's subsession for JPEG streams (RFC 2435, payload type 26).
#pragma once

#include "rtsp/jpegsink.h"
#include "rtsp/mediademandsession.h"

namespace kavo::impl {

struct Jpeg {
  using Source = JpegSource;
  using Sink = JpegSink;
  static constexpr unsigned kilobits = 64;
  static constexpr bool keyFramesOnly = true;
};

using JpegDemandSession = MediaDemandSession<Jpeg>;

}  // namespace kavo::impl
