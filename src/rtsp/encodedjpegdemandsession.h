// live555's subsession for JPEG images that the host has encoded (RFC 2435, payload type 26).
// Event-loop thread.
#pragma once

#include <JPEGVideoRTPSink.hh>
#include <span>

#include "rtp/jpegimage.h"
#include "rtsp/framesink.h"
#include "rtsp/mediademandsession.h"
#include "rtsp/wholeframesource.h"

namespace kavo::impl {

class EncodedJpegSink : public FrameSink<JPEGVideoRTPSink, WholeFrameSource> {
 public:
  static EncodedJpegSink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock, unsigned char /*payloadType*/,
                                    Viewers& viewers, std::span<std::uint8_t const> /*parameterSets*/) {
    return new EncodedJpegSink(env, rtpGroupsock, viewers);
  }

 private:
  using FrameSink::FrameSink;

  // Every JPEG image is a key frame.
  bool packetize(WholeFrameSource& /*source*/, std::span<std::uint8_t const> bytes, std::size_t maxPacket,
                 FramePackets& packets) override {
    packetizeJpeg(JpegImage(bytes).frame(), maxPacket, packets);
    return true;
  }
};

struct EncodedJpeg {
  using Source = WholeFrameSource;
  using Sink = EncodedJpegSink;
  static constexpr unsigned kilobits = 64;
  static constexpr bool keyFramesOnly = true;
};

using EncodedJpegDemandSession = MediaDemandSession<EncodedJpeg>;

}  // namespace kavo::impl
