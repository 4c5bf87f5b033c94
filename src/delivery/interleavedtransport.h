// Delivers to a viewer over its RTSP connection. Event-loop thread.
#pragma once

#include <memory>
#include <utility>

#include "delivery/interleavedwriter.h"
#include "delivery/transport.h"

namespace kavo::impl {

class InterleavedTransport : public Transport {
 public:
  InterleavedTransport(std::uint8_t rtpChannel, std::uint8_t rtcpChannel)
      : m_RtpChannel(rtpChannel), m_RtcpChannel(rtcpChannel) {}

  // Sets the connection to send on. Nothing is sent before.
  void attach(std::shared_ptr<InterleavedWriter> writer) { m_Writer = std::move(writer); }

  Outcome send(FramePtr const& frame, Clock::time_point now) override KAVO_REQUIRES(eventLoopRole) {
    return m_Writer ? m_Writer->sendFrame(frame, m_RtpChannel, now) : Outcome{};
  }
  void sendReport(std::span<std::uint8_t const> report) override KAVO_REQUIRES(eventLoopRole) {
    if (m_Writer) {
      m_Writer->sendReport(report, m_RtcpChannel);
    }
  }
  void cancel() override KAVO_REQUIRES(eventLoopRole) {
    if (m_Writer) {
      m_Writer->cancel(m_RtpChannel);
      m_Writer->cancel(m_RtcpChannel);
    }
  }
  bool isBusy() const override KAVO_REQUIRES(eventLoopRole) { return m_Writer && m_Writer->isBlocked(); }
  InterleavedTransport* interleaved() override { return this; }

  bool usesChannel(int channel) const { return channel == m_RtpChannel || channel == m_RtcpChannel; }
  // Whether the viewer has received anything since the last call.
  bool takeProgress() KAVO_REQUIRES(eventLoopRole) { return m_Writer && m_Writer->takeProgress(m_RtpChannel); }

 private:
  std::uint8_t const m_RtpChannel;
  std::uint8_t const m_RtcpChannel;
  std::shared_ptr<InterleavedWriter> m_Writer;
};

}  // namespace kavo::impl
