#include "operate/observer.h"

#include "base/address.h"
#include "kavo_stream.h"

namespace kavo::impl {

namespace {

constexpr std::uint32_t clockRate = 90000;  // of RTP time, per second

constexpr char const* departures[] = {"timed out",
                                      "TEARDOWN",
                                      "connection closed",
                                      "stalled for 10 s",
                                      "nobody listens on its port",
                                      "the host ended the session",
                                      "not allowed any more"};

constexpr std::uint64_t kv_status_process::* refusals[] = {
    &kv_status_process::refused_address, &kv_status_process::refused_limit, &kv_status_process::refused_user};

kv_status_state numberOf(ViewerState state) {
  switch (state) {
    case ViewerState::SetUp:
      return KV_STATUS_SET_UP;
    case ViewerState::Joining:
    case ViewerState::AwaitingKeyFrame:
      return KV_STATUS_AWAITING_KEY;
    case ViewerState::Playing:
      return KV_STATUS_PLAYING;
    case ViewerState::Paused:
      break;
  }
  return KV_STATUS_PAUSED;
}

std::uint64_t microseconds(std::chrono::steady_clock::duration time) {
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

}  // namespace

void observeRefusal(Refusal refusal, sockaddr_storage const& address, char const* why) noexcept {
  status::increaseProcess(refusals[static_cast<int>(refusal)]);
  if (status::page() != nullptr) {
    try {
      status::note(KV_STATUS_REFUSED, "", textOf(address), why);
    } catch (...) {  // no memory: no event
    }
  }
}

void StreamObserver::keyFrameRequested() {
  if (*this && (*this)->codec == KV_CODEC_H264) {
    add(&kv_status_stream::key_frames_asked);
    status::note(KV_STATUS_KEY_FRAME, name(), "", "");
  }
}

void StreamObserver::encoded(std::size_t bytes, bool keyFrame, std::chrono::steady_clock::duration time) {
  if (*this) {
    add(bytes > 0 ? &kv_status_stream::encoded : &kv_status_stream::skipped);
    add(&kv_status_stream::key_frames, keyFrame && (*this)->codec == KV_CODEC_H264 ? 1 : 0);
    add(&kv_status_stream::bytes, bytes);
    add(&kv_status_stream::encoding, microseconds(time));
  }
}

void StreamObserver::delivered(std::chrono::steady_clock::time_point submitted) {
  if (*this) {
    status::put((*this)->newest, status::now() - microseconds(std::chrono::steady_clock::now() - submitted));
  }
}

ViewerObserver::ViewerObserver(StreamObserver const& stream, bool overUdp) : m_Stream(stream), m_OverUdp(overUdp) {
  m_Place.take(overUdp ? KV_STATUS_UDP : KV_STATUS_TCP, stream.index());
}

void ViewerObserver::setAddress(sockaddr_storage const& address) {
  if (status::page() != nullptr) {
    m_Address = textOf(address);
    m_Place.putAddress(m_Address);
  }
}

void ViewerObserver::entered(ViewerState state) {
  m_IsPlaying = state == ViewerState::Playing;
  if (m_Place) {
    status::put(m_Place->state, numberOf(state));
  }
}

void ViewerObserver::left(Departure departure) noexcept {
  note(KV_STATUS_LEFT, departures[static_cast<int>(departure)]);
}

void ViewerObserver::sent(std::size_t bytes, bool isBusy) {
  m_IsBehind = m_IsBehind && isBusy;
  m_Place.add(&kv_status_viewer::frames_sent);
  m_Place.add(&kv_status_viewer::bytes_sent, bytes);
}

void ViewerObserver::dropped(std::size_t frames) {
  m_Place.add(&kv_status_viewer::frames_dropped, frames);
  if (frames > 0 && m_IsPlaying && !m_IsBehind) {
    m_IsBehind = true;
    note(KV_STATUS_DROPPED, "");
  }
}

void ViewerObserver::reported(Reception const& reception) {
  if (!m_Place) {
    return;
  }
  status::put(m_Place->report, status::now());
  status::put(m_Place->loss, reception.fractionLost);
  status::put(m_Place->lost, reception.packetsLost);
  status::put(m_Place->jitter, static_cast<std::uint32_t>(std::uint64_t{reception.jitter} * 1000000 / clockRate));
  if (reception.roundTrip) {
    status::put(m_Place->round_trip, static_cast<std::uint32_t>(reception.roundTrip->count()));
  }
}

void ViewerObserver::note(kv_status_event_kind kind, std::string_view more) const noexcept {
  status::note(kind, m_Stream.name(), m_Address, more);
}

}  // namespace kavo::impl
