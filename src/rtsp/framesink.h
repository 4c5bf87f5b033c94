// The common part of the sinks of all payload formats: they get whole encoded frames from
// their source and send each frame's packets to all viewers in one call. live555's classes
// keep the counters, time stamps and SDP. Event-loop thread.
#pragma once

#include <MediaSink.hh>
#include <RTPSink.hh>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <limits>
#include <new>
#include <utility>

#include "delivery/viewers.h"
#include "eventloop/contained.h"
#include "rtsp/presentationclock.h"

namespace kavo::impl {

// A demand session's interface to its sink.
class LiveSink {
 public:
  virtual RTPSink& rtp() = 0;
  // The current RTP time and wall clock, and the counts of what was sent.
  virtual SenderInfo senderInfo() KAVO_REQUIRES(eventLoopRole) = 0;
  // The RTP time that corresponds to the time point.
  virtual std::uint32_t rtpTimeAt(std::chrono::steady_clock::time_point time) KAVO_REQUIRES(eventLoopRole) = 0;

 protected:
  ~LiveSink() = default;
};

// While it exists, live555's sinks are created with a buffer for one packet instead of the
// largest frame, because we do not use their buffer.
class SmallOutPacketBuffer : NonCopyable {
 public:
  SmallOutPacketBuffer() { OutPacketBuffer::maxSize = 2000; }
  ~SmallOutPacketBuffer() { OutPacketBuffer::maxSize = m_Before; }

 private:
  unsigned const m_Before = OutPacketBuffer::maxSize;
};

// Base is live555's sink for the payload format, Source a QueuedSource.
template <class Base, class Source>
class FrameSink : public Base, public LiveSink {
 public:
  RTPSink& rtp() override { return *this; }

  SenderInfo senderInfo() override KAVO_REQUIRES(eventLoopRole) {
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

  std::uint32_t rtpTimeAt(std::chrono::steady_clock::time_point time) override KAVO_REQUIRES(eventLoopRole) {
    return this->convertToRTPTimestamp(presentationTime(time));
  }

 protected:
  template <class... Arguments>
  FrameSink(UsageEnvironment& env, Groupsock* rtpGroupsock, Viewers& viewers, Arguments&&... arguments)
      : Base(env, rtpGroupsock, std::forward<Arguments>(arguments)...), m_Viewers(viewers) {}

  // Splits the bytes of the frame just delivered into packets. Returns whether it is a key frame.
  virtual bool packetize(Source& source, std::span<std::uint8_t const> bytes, std::size_t maxPacket,
                         FramePackets& packets) KAVO_REQUIRES(eventLoopRole) = 0;

 private:
  // Only the demand session starts the sink, with its own source.
  Boolean sourceIsCompatibleWithUs(MediaSource& /*source*/) override { return True; }

  Boolean continuePlaying() override {
    if (this->fSource != nullptr) {
      this->fSource->getNextFrame(nullptr, 0, afterGettingFrame, this, MediaSink::onSourceClosure, this);
    }
    return True;
  }

  static void afterGettingFrame(void* sink, unsigned size, unsigned /*truncatedBytes*/, timeval presentationTime,
                                unsigned /*durationInMicroseconds*/) {
    eventLoopRole.assertHeld();
    auto& self = *static_cast<FrameSink*>(sink);
    bool const done = contained([&]() KAVO_REQUIRES(eventLoopRole) {
      if (auto const frame = self.takeFrame(size, presentationTime)) {
        self.m_Viewers.send(frame);
      }
    });
    if (!done) {
      self.m_Viewers.failed();
    }
    self.continuePlaying();
  }

  // The frame in packets; null if no viewer wants it, since skipped sequence numbers would look
  // like loss.
  FramePtr takeFrame(unsigned size, timeval time) KAVO_REQUIRES(eventLoopRole) {
    auto& source = static_cast<Source&>(*this->fSource);
    FramePtr frame = source.takeFrame();
    if (frame == nullptr) {
      throw std::bad_alloc();
    }
    std::int64_t const ticks = std::max(ticksOf(time), m_LastTicks + 1);
    auto const rtpTime = static_cast<std::uint32_t>(this->convertToRTPTimestamp(time) +
                                                    static_cast<std::uint64_t>(ticks - ticksOf(time)));
    FramePackets& packets = frame->packets;
    packets.begin(
        {.payloadType = this->rtpPayloadType(), .sequence = this->fSeqNo, .timestamp = rtpTime, .ssrc = this->SSRC()});
    frame->isKeyFrame = packetize(source, {frame->data(), size}, m_Viewers.maxPacket(), packets);
    packets.end();
    if (packets.count() == 0 || !m_Viewers.takes(frame->isKeyFrame)) {
      return nullptr;
    }
    m_LastTicks = ticks;
    count(packets, time);
    return frame;
  }

  // RTP time since 1970, rounded as live555 does. Frames with different times never share one.
  static std::int64_t ticksOf(timeval time) {
    constexpr std::int64_t frequency = 90000;
    return frequency * time.tv_sec + (2 * frequency * time.tv_usec + 1000000) / 2000000;
  }

  // For live555's PLAY responses and our sender reports.
  void count(FramePackets const& packets, timeval time) KAVO_REQUIRES(eventLoopRole) {
    if (this->fInitialPresentationTime.tv_sec == 0) {
      this->fInitialPresentationTime = time;
    }
    this->fMostRecentPresentationTime = time;
    this->fCurrentTimestamp = packets.header().timestamp;
    this->fSeqNo = static_cast<u_int16_t>(this->fSeqNo + packets.count());
    this->fPacketCount += static_cast<unsigned>(packets.count());
    this->fOctetCount += static_cast<unsigned>(packets.bytes() - packets.count() * FramePackets::rtpHeaderSize);
    this->fTotalOctetCount += static_cast<unsigned>(packets.bytes());
  }

  Viewers& m_Viewers;
  std::int64_t m_LastTicks KAVO_GUARDED_BY(eventLoopRole) = std::numeric_limits<std::int64_t>::min() + 1;
};

}  // namespace kavo::impl
