// An H.264 stream as live555 serves it (RFC 6184).
#pragma once

#include "rtsp/livedemandsession.h"

namespace kavo {

// A viewer gets its first packet with an IDR picture, which is asked for when it
// begins to play: nobody sees a picture that lacks what it builds on.
class H264DemandSession : public LiveDemandSession {
 public:
  static H264DemandSession* createNew(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      KAVO_REQUIRES(eventLoopRole);

 protected:
  H264DemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole);

  FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) override;
  bool admit(FramedSource* source, bool first) override;
  void wakeSource(TaskScheduler* scheduler, FramedSource* source) override;
  RTPSink* createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                            FramedSource* inputSource) override;
};

}  // namespace kavo
