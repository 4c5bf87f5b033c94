// Delivers frames and reports to one viewer. Event-loop thread.
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
    // False if the viewer lags too far: it needs a key frame to continue. Key frames
    // are always accepted.
    bool accepted = true;
    std::size_t dropped = 0;  // frames accepted earlier that will not be sent
  };

  virtual ~Transport() = default;

  // Sends the frame, or queues it until the path has room. Over UDP, UdpFanout::flush()
  // sends it.
  virtual Outcome send(FramePtr const& frame, Clock::time_point now) KAVO_REQUIRES(eventLoopRole) = 0;
  virtual void sendReport(std::span<std::uint8_t const> report) KAVO_REQUIRES(eventLoopRole) = 0;
  // Drops the queue; on a connection the rest of a frame partly sent is still sent.
  virtual void cancel() KAVO_REQUIRES(eventLoopRole) = 0;
  // Whether something is waiting for the path.
  virtual bool isBusy() const KAVO_REQUIRES(eventLoopRole) = 0;

  // This object if it is of that kind, else null.
  virtual UdpTransport* udp() { return nullptr; }
  virtual InterleavedTransport* interleaved() { return nullptr; }
};

}  // namespace kavo::impl
