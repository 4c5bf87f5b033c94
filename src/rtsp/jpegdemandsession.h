// A JPEG stream as live555 serves it (RFC 2435, payload type 26).
#pragma once

#include "rtsp/livedemandsession.h"

namespace kavo {

class JpegDemandSession : public LiveDemandSession {
 public:
  static JpegDemandSession* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole);

 protected:
  JpegDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole);

  FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) override;
  bool admit(FramedSource* source, bool first) override;
  void wakeSource(TaskScheduler* scheduler, FramedSource* source) override;
  RTPSink* createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                            FramedSource* inputSource) override;
};

}  // namespace kavo
