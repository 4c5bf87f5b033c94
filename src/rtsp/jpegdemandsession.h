// live555's subsession for JPEG streams (RFC 2435, payload type 26). Event-loop thread.
#pragma once

#include <JPEGVideoRTPSink.hh>
#include <span>

#include "rtp/jpegpacketizer.h"
#include "rtsp/framesink.h"
#include "rtsp/jpegsource.h"
#include "rtsp/mediademandsession.h"

namespace kavo::impl {

class JpegSink : public FrameSink<JPEGVideoRTPSink, JpegSource> {
 public:
  static JpegSink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock, unsigned char /*payloadType*/,
                             Viewers& viewers, std::span<std::uint8_t const> /*parameterSets*/) {
    return new JpegSink(env, rtpGroupsock, viewers);
  }

 private:
  using FrameSink::FrameSink;

  // Every JPEG image is a key frame. The source has parsed its header.
  bool packetize(JpegSource& source, std::span<std::uint8_t const> bytes, std::size_t maxPacket,
                 FramePackets& packets) override {
    JpegFrame image{.type = source.type(),
                    .q = source.qFactor(),
                    .width = source.width(),
                    .height = source.height(),
                    .precision = 0,
                    .tables = {},
                    .scan = bytes};
    u_int16_t length = 0;
    auto const* const tables = source.quantizationTables(image.precision, length);
    image.tables = {tables, length};
    packetizeJpeg(image, maxPacket, packets);
    return true;
  }
};

struct Jpeg {
  using Source = JpegSource;
  using Sink = JpegSink;
  static constexpr unsigned kilobits = 64;
  static constexpr bool keyFramesOnly = true;
};

using JpegDemandSession = MediaDemandSession<Jpeg>;

}  // namespace kavo::impl
