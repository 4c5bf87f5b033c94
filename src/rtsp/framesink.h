// What the sinks of both payload formats share: they take one whole encoded frame
// from their source, and its packets go to all viewers in one call. live555's
// classes keep counters, time stamps and SDP. Event-loop thread.
#pragma once

#include <MediaSink.hh>
#include <RTPSink.hh>
#include <chrono>
#include <span>
#include <utility>

#include "delivery/viewers.h"
#include "eventloop/contained.h"
#include "rtsp/framebuffer.h"
#include "rtsp/presentationclock.h"
#include "rtsp/queuedsource.h"

namespace kavo::impl {

// What a demand session sees of both sinks.
class LiveSink {
 public:
  virtual ~LiveSink() = default;
  // RTP time and wall clock of this moment, and what was sent so far.
  virtual SenderInfo senderInfo() KAVO_REQUIRES(eventLoopRole) = 0;
  // RTP time of that moment.
  virtual std::uint32_t rtpTimeAt(std::chrono::steady_clock::time_point time) KAVO_REQUIRES(eventLoopRole) = 0;
  // The frame for which Viewers::send() was false has left.
  virtual void frameSent() KAVO_REQUIRES(eventLoopRole) = 0;
};

// While it exists, live555's sinks are made with a buffer of one packet instead
// of one for the largest frame: theirs is not used.
class SmallOutPacketBuffer {
 public:
  SmallOutPacketBuffer() { OutPacketBuffer::maxSize = 2000; }
  ~SmallOutPacketBuffer() { OutPacketBuffer::maxSize = m_Before; }
  SmallOutPacketBuffer(SmallOutPacketBuffer const&) = delete;
  SmallOutPacketBuffer& operator=(SmallOutPacketBuffer const&) = delete;

 private:
  unsigned const m_Before = OutPacketBuffer::maxSize;
};

// Base is live555's sink of the payload format.
template <class Base>
class FrameSink : public Base, public LiveSink {
 public:
  SenderInfo senderInfo() override {
    constexpr std::uint64_t secondsFrom1900To1970 = 2208988800;
    auto const wall = wallClock();
    auto const seconds = std::chrono::floor<std::chrono::seconds>(wall);
    auto const fraction = (static_cast<std::uint64_t>((wall - seconds).count()) << 32) / 1000000;
    return {.ssrc = this->SSRC(),
            .ntpTime = (static_cast<std::uint64_t>(seconds.count()) + secondsFrom1900To1970) << 32 | fraction,
            .rtpTime = rtpTimeAt(std::chrono::steady_clock::now()),
            .packets = this->fPacketCount,
            .octets = this->fOctetCount};
  }

  std::uint32_t rtpTimeAt(std::chrono::steady_clock::time_point time) override {
    return this->convertToRTPTimestamp(presentationTime(time));
  }

  void frameSent() override { continuePlaying(); }

 protected:
  template <class... Arguments>
  FrameSink(UsageEnvironment& env, Groupsock* rtpGroupsock, Viewers& viewers, Arguments&&... arguments)
      : Base(env, rtpGroupsock, std::forward<Arguments>(arguments)...), m_Viewers(viewers) {}

  // Whether the frame is a key frame.
  virtual bool packetize(std::span<std::uint8_t const> frame, std::size_t maxPacket, FramePackets& packets)
      KAVO_REQUIRES(eventLoopRole) = 0;

 private:
  Boolean sourceIsCompatibleWithUs(MediaSource& source) override {
    auto* const growing = dynamic_cast<GrowingSource*>(&source);
    if (growing != nullptr) {
      growing->setBuffers([this]() KAVO_REQUIRES(eventLoopRole) -> FrameBuffer& { return nextBuffer(); });
    }
    return growing != nullptr ? True : False;
  }

  Boolean continuePlaying() override {
    if (this->fSource != nullptr) {
      this->fSource->getNextFrame(nullptr, 0, afterGettingFrame, this, MediaSink::onSourceClosure, this);
    }
    return True;
  }

  // The newest frame may be on its way to somebody who has just joined.
  FrameBuffer& nextBuffer() KAVO_REQUIRES(eventLoopRole) {
    m_Viewers.finishWelcome();
    if (m_Viewers.isSending(m_Frame->packets)) {
      m_Frame = m_Frame == &m_Frames[0] ? &m_Frames[1] : &m_Frames[0];
    }
    return m_Frame->bytes;
  }

  static void afterGettingFrame(void* sink, unsigned size, unsigned /*truncatedBytes*/, timeval presentationTime,
                                unsigned /*durationInMicroseconds*/) {
    eventLoopRole.assertHeld();
    static_cast<FrameSink*>(sink)->sendFrame(size, presentationTime);
  }

  void sendFrame(unsigned size, timeval time) KAVO_REQUIRES(eventLoopRole) {
    bool left = true;
    if (!contained([&]() KAVO_REQUIRES(eventLoopRole) { left = send(size, time); })) {
      m_Viewers.abandonFrame();
      left = true;
    }
    if (left) {
      continuePlaying();
    }
  }

  // False: the rest of the frame follows.
  bool send(unsigned size, timeval time) KAVO_REQUIRES(eventLoopRole) {
    std::uint32_t const rtpTime = rtpTimeOf(time);
    FramePackets& packets = m_Frame->packets;
    m_Viewers.forgetNewestFrame();
    packets.begin(
        {.payloadType = this->rtpPayloadType(), .sequence = this->fSeqNo, .timestamp = rtpTime, .ssrc = this->SSRC()});
    bool const keyFrame = packetize({m_Frame->bytes.data(), size}, m_Viewers.maxPacket(), packets);
    // Do not number a frame that no viewer takes: the gap would look like loss.
    if (packets.count() == 0 || !m_Viewers.takes(keyFrame)) {
      return true;
    }
    count(rtpTime, size, time);
    return m_Viewers.send(packets, keyFrame);
  }

  // Frames of different times never share one.
  std::uint32_t rtpTimeOf(timeval time) {
    std::uint32_t const rtpTime = this->convertToRTPTimestamp(time);
    bool const advances = static_cast<std::int32_t>(rtpTime - this->fCurrentTimestamp) > 0;
    return this->fPacketCount == 0 || advances ? rtpTime : this->fCurrentTimestamp + 1;
  }

  // For live555's PLAY responses and our sender reports.
  void count(std::uint32_t rtpTime, unsigned size, timeval time) KAVO_REQUIRES(eventLoopRole) {
    if (this->fInitialPresentationTime.tv_sec == 0) {
      this->fInitialPresentationTime = time;
    }
    this->fMostRecentPresentationTime = time;
    this->fCurrentTimestamp = rtpTime;
    FramePackets const& packets = m_Frame->packets;
    this->fSeqNo = static_cast<u_int16_t>(this->fSeqNo + packets.count());
    this->fPacketCount += static_cast<unsigned>(packets.count());
    this->fOctetCount += size;
    this->fTotalOctetCount += static_cast<unsigned>(packets.bytes());
  }

  struct Frame {
    FrameBuffer bytes;
    FramePackets packets;
  };

  Viewers& m_Viewers;
  Frame m_Frames[2] KAVO_GUARDED_BY(eventLoopRole);
  Frame* m_Frame KAVO_GUARDED_BY(eventLoopRole) = &m_Frames[0];  // the newest
};

}  // namespace kavo::impl
