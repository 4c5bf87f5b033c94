// One client session's part in a stream: what it gets, and when. Event-loop thread.
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

  // Those that it is one of.
  Viewers& viewers() const { return m_Viewers; }
  State state() const { return m_State; }
  // Whether it wants frames, now or from the next key frame on.
  bool isActive() const { return m_State != State::SetUp && m_State != State::Paused; }
  // Whether it takes such a frame.
  bool takes(bool keyFrame) const { return m_State == State::Playing || (keyFrame && isActive()); }
  bool hasPlayed() const { return m_HasPlayed; }
  Transport& transport() const { return *m_Transport; }
  ViewerObserver& observer() { return m_Observer; }

  // What the response to PLAY announces: the frame that it begins with, and whether the
  // sequence number of its first packet is known: not where it waits for a key frame after
  // frames that others get.
  Frame const* firstFrame() const { return m_FirstFrame.get(); }
  FramePtr takeFirstFrame() { return std::move(m_FirstFrame); }
  void setFirstFrame(FramePtr frame) { m_FirstFrame = std::move(frame); }
  bool isSequenceKnown() const { return m_IsSequenceKnown; }
  void setSequenceKnown(bool known) { m_IsSequenceKnown = known; }

  // Why it is about to leave: the first reason counts.
  Departure departure() const { return m_Departure; }
  void setDeparture(Departure departure) { m_Departure = m_Departure == Departure::TimedOut ? departure : m_Departure; }

  // True when it was not active before.
  bool play();
  void pause() KAVO_REQUIRES(eventLoopRole);
  // It lost a frame that others may reference.
  void awaitKeyFrame() KAVO_REQUIRES(eventLoopRole);
  struct Sent {
    bool isSent;
    bool wantsKeyFrame;
  };
  // Sends the frame, or drops it.
  Sent send(FramePtr const& frame, Clock::time_point now) KAVO_REQUIRES(eventLoopRole);

  // Its report has come. True when it asks for a key frame.
  bool reported(ReceiverReport const& report, std::optional<std::chrono::microseconds> roundTrip, Clock::time_point now)
      KAVO_REQUIRES(eventLoopRole);
  Clock::time_point lastReport() const { return m_LastReport; }
  Reception const& reception() const { return m_Reception; }
  // Called whenever a report has come, and whether it answers a report of ours.
  void onReport(std::function<void(bool)> function) { m_OnReport = std::move(function); }
  // After its connection has closed its port is probed: how often that was refused.
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
  Reception m_Reception;
  Clock::time_point m_LastReport{};
  std::function<void(bool)> m_OnReport;
  int m_ProbesRefused = 0;
  Departure m_Departure = Departure::TimedOut;
};

}  // namespace kavo::impl
