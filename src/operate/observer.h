// What operators are told of streams and viewers: each event is reported here once, and
// counted on the status page.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/noncopyable.h"
#include "operate/statuspage.h"

namespace kavo::impl {

enum class ViewerState { SetUp, Joining, AwaitingKeyFrame, Playing, Paused };

// Why a viewer left.
enum class Departure { TimedOut, Teardown, ConnectionClosed, Stalled, Unreachable, SessionRemoved, NotAllowed };

enum class Refusal { Address, Limit, User };

// What a viewer's reports say.
struct Reception {
  std::uint8_t fractionLost = 0;  // in 1/256
  std::int32_t packetsLost = 0;
  std::uint32_t jitter = 0;  // in units of RTP time
  std::optional<std::chrono::microseconds> roundTrip;
};

// Event-loop thread.
void observeRefusal(Refusal refusal, sockaddr_storage const& address, char const* why) noexcept;

// One stream. Host threads, one at a time, but for what says otherwise.
class StreamObserver : public status::StreamPlace {
 public:
  void offered() { add(&kv_status_stream::offered); }
  void unwatched() { add(&kv_status_stream::dropped_unwatched); }
  void queueFull() { add(&kv_status_stream::dropped_full); }
  void failed() { add(&kv_status_stream::failed); }
  void keyFrameRequested();
  // Bytes of the frame, 0 for one that the encoder skipped; and how long encoding took.
  void encoded(std::size_t bytes, bool keyFrame, std::chrono::steady_clock::duration time);
  // Event-loop thread. A frame of this age goes to the viewers, or would.
  void delivered(std::chrono::steady_clock::time_point submitted);
  void sent() { add(&kv_status_stream::sent); }
};

// One viewer. Event-loop thread.
class ViewerObserver : NonCopyable {
 public:
  ViewerObserver(StreamObserver const& stream, bool overUdp);

  void setAddress(sockaddr_storage const& address);
  void entered(ViewerState state);
  void joined() { note(KV_STATUS_JOINED, m_OverUdp ? "udp" : "tcp"); }
  void left(Departure departure) noexcept;
  void paused() { note(KV_STATUS_PAUSE, ""); }
  void pathNarrowed(std::size_t maxPacket) { note(KV_STATUS_NARROWED, std::to_string(maxPacket) + " bytes"); }
  // More of it may still wait.
  void sent(std::size_t bytes, bool isBusy);
  void dropped(std::size_t frames);
  void reported(Reception const& reception);

 private:
  void note(kv_status_event_kind kind, std::string_view more) const noexcept;

  StreamObserver const& m_Stream;
  bool const m_OverUdp;
  status::ViewerPlace m_Place;
  std::string m_Address;
  bool m_IsPlaying = false;
  bool m_IsBehind = false;
};

}  // namespace kavo::impl
