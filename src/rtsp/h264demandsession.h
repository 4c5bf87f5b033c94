// An H.264 stream as live555 serves it (RFC 6184).
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "rtsp/livedemandsession.h"

namespace kavo::impl {

class H264DemandSession : public LiveDemandSession {
 public:
  // The parameter sets are the encoder's, in Annex B form, for the SDP.
  static H264DemandSession* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                      std::span<std::uint8_t const> parameterSets, Delivery const& delivery = {})
      KAVO_REQUIRES(eventLoopRole);

 protected:
  H264DemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                    std::span<std::uint8_t const> parameterSets, Delivery const& delivery) KAVO_REQUIRES(eventLoopRole);

  FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) override;
  void wakeSource(TaskScheduler* scheduler, FramedSource* source) override;
  RTPSink* createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                            FramedSource* inputSource) override;

 private:
  std::vector<std::uint8_t> const m_ParameterSets;
};

}  // namespace kavo::impl
