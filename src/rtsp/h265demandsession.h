// live555's subsession for H.265 streams (RFC 7798). Event-loop thread.
#pragma once

#include <H265VideoRTPSink.hh>
#include <span>

#include "rtp/nalpacketizer.h"
#include "rtp/nalunits.h"
#include "rtsp/framesink.h"
#include "rtsp/mediademandsession.h"
#include "rtsp/wholeframesource.h"

namespace kavo::impl {

class H265Sink : public FrameSink<H265VideoRTPSink, WholeFrameSource> {
 public:
  // The parameter sets (VPS, SPS and PPS in Annex B form, or none) are for the SDP.
  static H265Sink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock, unsigned char payloadType,
                             Viewers& viewers, std::span<std::uint8_t const> parameterSets) {
    NalUnit const vps = findNalUnit(parameterSets, H265NalUnitType::Vps);
    NalUnit const sps = findNalUnit(parameterSets, H265NalUnitType::Sps);
    NalUnit const pps = findNalUnit(parameterSets, H265NalUnitType::Pps);
    return new H265Sink(env, rtpGroupsock, viewers, payloadType, vps.data(), static_cast<unsigned>(vps.size()),
                        sps.data(), static_cast<unsigned>(sps.size()), pps.data(), static_cast<unsigned>(pps.size()));
  }

 private:
  using FrameSink::FrameSink;

  bool packetize(WholeFrameSource& /*source*/, std::span<std::uint8_t const> bytes, std::size_t maxPacket,
                 FramePackets& packets) override {
    return packetizeH265(bytes, maxPacket, packets);
  }
};

struct H265 {
  using Source = WholeFrameSource;
  using Sink = H265Sink;
  static constexpr unsigned kilobits = 1048576;
  static constexpr bool keyFramesOnly = false;
};

using H265DemandSession = MediaDemandSession<H265>;

}  // namespace kavo::impl
