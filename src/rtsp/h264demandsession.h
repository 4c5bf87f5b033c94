// live555's subsession for H.264 streams (RFC 6184). Event-loop thread.
#pragma once

#include <H264VideoRTPSink.hh>
#include <span>
#include <string>

#include "rtp/nalpacketizer.h"
#include "rtp/nalunits.h"
#include "rtsp/framesink.h"
#include "rtsp/mediademandsession.h"
#include "rtsp/wholeframesource.h"

namespace kavo::impl {

class H264Sink : public FrameSink<H264VideoRTPSink, H264Source> {
 public:
  // The parameter sets (SPS and PPS in Annex B form, or none) are for the SDP.
  static H264Sink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock, unsigned char payloadType,
                             Viewers& viewers, std::span<std::uint8_t const> parameterSets) {
    NalUnit const sps = findNalUnit(parameterSets, NalUnitType::Sps);
    NalUnit const pps = findNalUnit(parameterSets, NalUnitType::Pps);
    return new H264Sink(env, rtpGroupsock, viewers, payloadType, sps.data(), static_cast<unsigned>(sps.size()),
                        pps.data(), static_cast<unsigned>(pps.size()));
  }

 private:
  using FrameSink::FrameSink;

  // Without parameter sets live555 adds no line, which would mean that no NAL unit is fragmented.
  char const* auxSDPLine() override {
    char const* const line = FrameSink::auxSDPLine();
    m_Line = "a=fmtp:" + std::to_string(rtpPayloadType()) + " packetization-mode=1\r\n";
    return line != nullptr ? line : m_Line.c_str();
  }

  bool packetize(H264Source& /*source*/, std::span<std::uint8_t const> bytes, std::size_t maxPacket,
                 FramePackets& packets) override {
    return packetizeH264(bytes, maxPacket, packets);
  }

  std::string m_Line;
};

struct H264 {
  using Source = H264Source;
  using Sink = H264Sink;
  static constexpr unsigned kilobits = 1048576;
  static constexpr bool keyFramesOnly = false;
};

using H264DemandSession = MediaDemandSession<H264>;

}  // namespace kavo::impl
