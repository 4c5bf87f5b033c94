// live555's H.264 sink, whose packet size may change while it stands still.
// Event-loop thread.
#pragma once

#include <FramedFilter.hh>
#include <H264VideoRTPSink.hh>

namespace kavo {

class H264Sink : public H264VideoRTPSink {
 public:
  static H264Sink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock, unsigned char payloadType) {
    return new H264Sink(env, rtpGroupsock, payloadType);
  }

  // live555 keeps the fragmenter of the first start, with that one's packet size.
  void stopPlaying() override {
    H264VideoRTPSink::stopPlaying();
    if (fOurFragmenter != nullptr) {
      fOurFragmenter->detachInputSource();
      Medium::close(fOurFragmenter);
      fOurFragmenter = nullptr;
    }
  }

 private:
  using H264VideoRTPSink::H264VideoRTPSink;
};

}  // namespace kavo
