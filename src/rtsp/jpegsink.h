// live555's JPEG sink, with room for the quantization tables in every first
// packet of a picture. Event-loop thread.
#pragma once

#include <JPEGVideoRTPSink.hh>

namespace kavo {

// live555 reserves the header's room before the source has seen its first
// picture, when there are no tables yet, and then writes them over the
// picture's beginning: the first picture of every source would arrive damaged.
class JpegSink : public JPEGVideoRTPSink {
 public:
  static JpegSink* createNew(UsageEnvironment& env, Groupsock* rtpGroupsock) { return new JpegSink(env, rtpGroupsock); }

 private:
  using JPEGVideoRTPSink::JPEGVideoRTPSink;

  unsigned specialHeaderSize() const override {
    constexpr unsigned mainHeader = 8;
    constexpr unsigned tablesHeader = 4 + 128;
    return curFragmentationOffset() == 0 ? mainHeader + tablesHeader : mainHeader;
  }
};

}  // namespace kavo
