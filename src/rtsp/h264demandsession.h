// live555's subsession for H.264 streams (RFC 6184).
#pragma once

#include "rtsp/h264sink.h"
#include "rtsp/mediademandsession.h"

namespace kavo::impl {

struct H264 {
  using Source = H264Source;
  using Sink = H264Sink;
  static constexpr unsigned kilobits = 1048576;
  static constexpr bool keyFramesOnly = false;
};

using H264DemandSession = MediaDemandSession<H264>;

}  // namespace kavo::impl
