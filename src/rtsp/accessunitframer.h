// Hands access units on to live555's RTP sink NAL unit by NAL unit, as RFC 6184
// wants them. Event-loop thread.
#pragma once

#include <H264VideoStreamDiscreteFramer.hh>
#include <functional>
#include <vector>

#include "eventloop/eventlooprole.h"
#include "rtp/nalunits.h"

namespace kavo {

// Its input source delivers one access unit a frame. All NAL units of one carry
// its presentation time; the picture's end is marked on the last.
class AccessUnitFramer : public H264VideoStreamDiscreteFramer {
 public:
  // onKeyPicture is called before the first NAL unit of each IDR picture is handed on.
  static AccessUnitFramer* createNew(UsageEnvironment& env, FramedSource* inputSource,
                                     std::function<void()> onKeyPicture) KAVO_REQUIRES(eventLoopRole);

  // Lets nothing through until the next IDR picture.
  void awaitKeyPicture() KAVO_REQUIRES(eventLoopRole) { m_AwaitingKeyPicture = true; }

 protected:
  AccessUnitFramer(UsageEnvironment& env, FramedSource* inputSource, std::function<void()> onKeyPicture);

  void doGetNextFrame() override;
  void doStopGettingFrames() override;
  Boolean nalUnitEndsAccessUnit(u_int8_t nalUnitType) override;

 private:
  static void afterGettingAccessUnit(void* clientData, unsigned frameSize, unsigned truncatedBytes,
                                     timeval presentationTime, unsigned durationInMicroseconds);
  void receive(unsigned size, unsigned truncatedBytes, timeval presentationTime) KAVO_REQUIRES(eventLoopRole);
  bool admits(std::vector<NalUnit> const& nalUnits) KAVO_REQUIRES(eventLoopRole);
  void keepForLater(std::vector<NalUnit> const& nalUnits) KAVO_REQUIRES(eventLoopRole);
  void deliverNext() KAVO_REQUIRES(eventLoopRole);

  std::function<void()> m_OnKeyPicture;
  bool m_AwaitingKeyPicture = false;
  // What is still to be handed on of the current access unit: sizes of NAL
  // units, whose bytes stand one behind the other.
  std::vector<std::uint8_t> m_Bytes;
  std::vector<std::size_t> m_Sizes;
  std::size_t m_NextUnit = 0;
  std::size_t m_NextByte = 0;
  unsigned m_TruncatedBytes = 0;
  timeval m_PresentationTime{};
};

}  // namespace kavo
