// One client session's view of a stream: which frames it gets, and when. Event-loop thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

#include "delivery/keyframedemand.h"
#include "delivery/transport.h"
#include "eventloop/eventlooprole.h"
#include "operate/observer.h"

namespace kavo::impl {

class Viewers;

//   SetUp, Paused --play--> Joining --first frame--> Playing
//     Playing --too slow for a frame, or path MTU exceeded--> AwaitingKeyFrame --key frame--> Playing
//     Joining, AwaitingKeyFrame, Playing --pause, or another took its ports--> Paused
class Viewer : NonCopyable {
 public:
  using Clock = Transport::Clock;
  using State = ViewerState;

  Viewer(Viewers& viewers, std::unique_ptr<Transport> transport, StreamObserver& stream);

  // The group that it belongs to.
  Viewers& viewers() const { return m_Viewers; }
  State state() const { return m_State; }
  // Whether it wants frames, immediately or from the next key frame on.
  bool isActive() const { return m_State != State::SetUp && m_State != State::Paused; }
  // Whether it would be sent such a frame.
  bool takes(bool keyFrame) const { return m_State == State::Playing || (keyFrame && isActive()); }
  bool hasPlayed() const { return m_HasPlayed; }
  Transport& transport() const { return *m_Transport; }
  ViewerObserver& observer() { return m_Observer; }

  // For the response to PLAY: the frame that it starts with, and whether the sequence number of
  // its first packet is known. It is not if others get frames before the key frame that this
  // viewer waits for.
  Frame const* firstFrame() const { return m_FirstFrame.get(); }
  FramePtr takeFirstFrame() { return std::move(m_FirstFrame); }
  void setFirstFrame(FramePtr frame) { m_FirstFrame = std::move(frame); }
  bool isSequenceKnown() const { return m_IsSequenceKnown; }
  void setSequenceKnown(bool known) { m_IsSequenceKnown = known; }

  // Why it is leaving; only the first reason set counts.
  Departure departure() const { return m_Departure; }
  void setDeparture(Departure departure) { m_Departure = m_Departure == Departure::TimedOut ? departure : m_Departure; }

  // True if it was not active before.
  bool play();
  void pause() KAVO_REQUIRES(eventLoopRole);
  // It lost a frame that later ones may reference.
  void awaitKeyFrame() KAVO_REQUIRES(eventLoopRole);
  struct Sent {
    bool isSent;
    bool wantsKeyFrame;
  };
  // Sends the frame, or drops it.
  Sent send(FramePtr const& frame, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);

  // Handles its report. True if it requests a key frame.
  bool reported(ReceiverReport const& report, std::optional<std::chrono::microseconds> roundTrip, Clock::time_point now)
      KAVO_REQUIRES(eventLoopRole);
  Clock::time_point lastReport() const { return m_LastReport; }
  // The function is called for each report, with whether it answers one of ours.
  void onReport(std::function<void(bool)> function) { m_OnReport = std::move(function); }
  // How many probes of its port were refused since its connection closed.
  int probesRefused() const { return m_ProbesRefused; }
  void probeRefused() { ++m_ProbesRefused; }

 private:
  void enter(State state);
  bool wantsKeyFrame(Clock::time_point now) KAVO_REQUIRES(eventLoopRole);

  Viewers& m_Viewers;
  std::unique_ptr<Transport> const m_Transport;
  ViewerObserver m_Observer;
  State m_State = State::SetUp;
  bool m_HasPlayed = false;
  FramePtr m_FirstFrame;
  bool m_IsSequenceKnown = true;
  KeyFrameDemand m_KeyFrames;
  Clock::time_point m_LastReport{};
  std::function<void(bool)> m_OnReport;
  int m_ProbesRefused = 0;
  Departure m_Departure = Departure::TimedOut;
};

}  // namespace kavo::impl
