// The RTP sink of JPEG streams (RFC 2435, payload type 26). Event-loop thread.
#pragma once

#include <JPEGVideoRTPSink.hh>
#include <JPEGVideoSource.hh>

#include "rtp/jpegpacketizer.h"
#include "rtsp/framesink.h"

namespace kavo::impl {

class JpegSink : public FrameSink<JPEGVideoRTPSink> {
 public:
  static JpegSink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock, Viewers& viewers) {
    SmallOutPacketBuffer const small;
    return new JpegSink(env, rtpGroupsock, viewers);
  }

 private:
  using FrameSink::FrameSink;

  // Every JPEG image is a key frame. What its header said, the source knows.
  bool packetize(std::span<std::uint8_t const> frame, std::size_t maxPacket, FramePackets& packets) override {
    auto& source = static_cast<JPEGVideoSource&>(*fSource);
    JpegFrame image{.type = source.type(),
                    .q = source.qFactor(),
                    .width = source.width(),
                    .height = source.height(),
                    .precision = 0,
                    .tables = {},
                    .scan = frame};
    u_int16_t length = 0;
    auto const* const tables = source.quantizationTables(image.precision, length);
    image.tables = {tables, length};
    packetizeJpeg(image, maxPacket, packets);
    return true;
  }
};

}  // namespace kavo::impl
