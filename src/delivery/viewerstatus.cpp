// The part of Viewer that writes its record on the status page.
#include "delivery/address.h"
#include "delivery/viewers.h"

namespace kavo::impl {

namespace {

kv_status_state numberOf(Viewer::State state) {
  switch (state) {
    case Viewer::State::SetUp:
      return KV_STATUS_SET_UP;
    case Viewer::State::AwaitingKeyFrame:
      return KV_STATUS_AWAITING_KEY;
    case Viewer::State::Playing:
      return KV_STATUS_PLAYING;
    case Viewer::State::Paused:
      break;
  }
  return KV_STATUS_PAUSED;
}

constexpr std::uint32_t clockRate = 90000;  // of RTP time, per second

}  // namespace

Viewer::Viewer(Viewers& table, kv_status_transport transport) : m_Table(table) {
  m_Place.take(transport, table.m_Stream.index());
}

void Viewer::setAddress(sockaddr_storage const& address) {
  if (status::page() != nullptr) {
    m_Address = textOf(address);
    m_Place.putAddress(m_Address);
  }
}

void Viewer::attach(std::shared_ptr<InterleavedWriter> writer, sockaddr_storage const& peer) {
  m_Writer = std::move(writer);
  setAddress(peer);
}

void Viewer::enter(State state) {
  m_State = state;
  m_HasPlayed = m_HasPlayed || state == State::Playing;
  if (m_Place) {
    status::put(m_Place->state, numberOf(state));
  }
}

void Viewer::noteSent(std::size_t bytes) {
  m_IsBehind = m_IsBehind && m_Writer && m_Writer->isBlocked();
  m_Place.add(&kv_status_viewer::frames_sent);
  m_Place.add(&kv_status_viewer::bytes_sent, bytes);
}

void Viewer::noteDropped(std::size_t frames) {
  m_Place.add(&kv_status_viewer::frames_dropped, frames);
  bool const fallsBehind = m_State == State::Playing && !m_IsBehind;
  if (fallsBehind) {
    m_IsBehind = true;
    noteEvent(KV_STATUS_DROPPED, "");
  }
}

void Viewer::noteReport(std::uint64_t time) {
  if (!m_Place) {
    return;
  }
  status::put(m_Place->report, time);
  status::put(m_Place->loss, m_Reception.fractionLost);
  status::put(m_Place->lost, m_Reception.packetsLost);
  status::put(m_Place->jitter, static_cast<std::uint32_t>(std::uint64_t{m_Reception.jitter} * 1000000 / clockRate));
  if (m_Reception.roundTrip) {
    status::put(m_Place->round_trip, static_cast<std::uint32_t>(m_Reception.roundTrip->count()));
  }
}

void Viewer::noteEvent(kv_status_event_kind kind, std::string_view more) const noexcept {
  status::note(kind, m_Table.m_Stream.name(), m_Address, more);
}

}  // namespace kavo::impl
