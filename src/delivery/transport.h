// How frames and reports reach one viewer. Event-loop thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "base/noncopyable.h"
#include "delivery/frame.h"
#include "eventloop/eventlooprole.h"

namespace kavo::impl {

class InterleavedTransport;
class UdpTransport;

class Transport : NonCopyable {
 public:
  using Clock = std::chrono::steady_clock;

  struct Outcome {
    // False when the viewer lags too far: it needs a key frame to continue. A key
    // frame is always accepted.
    bool accepted = true;
    std::size_t dropped = 0;  // frames that were accepted before, and will not be sent
  };

  virtual ~Transport() = default;

  // Sends the frame, or keeps it until the path takes it. Over UDP it leaves with
  // UdpFanout::flush().
  virtual Outcome send(FramePtr const& frame, Clock::time_point now) KAVO_REQUIRES(eventLoopRole) = 0;
  virtual void sendReport(std::span<std::uint8_t const> report) KAVO_REQUIRES(eventLoopRole) = 0;
  // Drops what waits; on a connection the rest of a frame partly sent still comes.
  virtual void cancel() KAVO_REQUIRES(eventLoopRole) = 0;
  // Whether something waits until the path takes it.
  virtual bool isBusy() const KAVO_REQUIRES(eventLoopRole) = 0;

  // This, where it is of that kind.
  virtual UdpTransport* udp() { return nullptr; }
  virtual InterleavedTransport* interleaved() { return nullptr; }
};

}  // namespace kavo::impl
