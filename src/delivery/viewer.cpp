#include "delivery/viewer.h"

namespace kavo::impl {

namespace {

// More frequent reports are ignored unless they answer one of ours: others at the address may send them too.
constexpr std::chrono::milliseconds shortestReportInterval{50};

}  // namespace

Viewer::Viewer(Viewers& viewers, std::unique_ptr<Transport> transport, StreamObserver& stream)
    : m_Viewers(viewers), m_Transport(std::move(transport)), m_Observer(stream, m_Transport->udp() != nullptr) {}

void Viewer::enter(State state) {
  m_State = state;
  m_HasPlayed = m_HasPlayed || state == State::Playing;
  m_Observer.entered(state);
}

bool Viewer::play() {
  if (isActive()) {
    return false;
  }
  enter(State::Joining);
  m_Observer.joined();
  return true;
}

void Viewer::pause() {
  if (isActive()) {
    enter(State::Paused);
    m_Observer.paused();
    m_Transport->cancel();
  }
}

void Viewer::awaitKeyFrame() {
  enter(State::AwaitingKeyFrame);
  m_KeyFrames.fellBehind();
}

Viewer::Sent Viewer::send(FramePtr const& frame, Clock::time_point now) {
  if (frame->isKeyFrame && isActive()) {
    if (m_State != State::Playing) {
      enter(State::Playing);
    }
    m_KeyFrames.keyFrameSent(frame->packets.header().sequence, now);
  }
  bool isSent = false;
  if (m_State == State::Playing) {
    auto const outcome = m_Transport->send(frame, now);
    m_Observer.dropped(outcome.dropped + (outcome.accepted ? 0 : 1));
    isSent = outcome.accepted;
    if (isSent) {
      m_Observer.sent(frame->packets.bytes(), m_Transport->isBusy());
    } else {
      awaitKeyFrame();
    }
  } else if (isActive()) {
    m_Observer.dropped(1);
  }
  return {isSent, wantsKeyFrame(now)};
}

// Key frames are large for all viewers, so one that was too slow requests one only when it has room for it.
bool Viewer::wantsKeyFrame(Clock::time_point now) {
  return m_State == State::Joining ||
         (isActive() && !(m_State == State::AwaitingKeyFrame && m_Transport->isBusy()) && m_KeyFrames.take(now));
}

bool Viewer::reported(ReceiverReport const& report, std::optional<std::chrono::microseconds> roundTrip,
                      Clock::time_point now) {
  m_KeyFrames.reported(report, m_Transport->udp() != nullptr);
  bool const wantsKeyFrame = m_State == State::Playing && m_KeyFrames.take(now);
  if (!roundTrip && now - m_LastReport < shortestReportInterval) {
    return wantsKeyFrame;
  }
  m_LastReport = now;
  m_ProbesRefused = 0;
  if (auto const& block = report.block) {
    m_Observer.reported({.fractionLost = block->fractionLost,
                         .packetsLost = block->packetsLost,
                         .jitter = block->jitter,
                         .roundTrip = roundTrip ? roundTrip : m_Observer.figures().reception.roundTrip});
  }
  if (m_OnReport) {
    m_OnReport(roundTrip.has_value());
  }
  return wantsKeyFrame;
}

}  // namespace kavo::impl
