// A JPEG stream as live555 serves it (RFC 2435, payload type 26).
#pragma once

#include <cstdint>
#include <span>

#include "rtsp/livedemandsession.h"

namespace kavo::impl {

class JpegDemandSession : public LiveDemandSession {
 public:
  // JPEG has no parameter sets.
  static JpegDemandSession* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                      std::span<std::uint8_t const> parameterSets = {}, Delivery const& delivery = {})
      KAVO_REQUIRES(eventLoopRole);

 protected:
  JpegDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler, Delivery const& delivery)
      KAVO_REQUIRES(eventLoopRole);

  FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) override;
  void wakeSource(TaskScheduler* scheduler, FramedSource* source) override;
  RTPSink* createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                            FramedSource* inputSource) override;
};

}  // namespace kavo::impl
