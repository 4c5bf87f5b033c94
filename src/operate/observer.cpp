#include "operate/observer.h"

#include <utility>

#include "base/address.h"
#include "operate/journal.h"

namespace kavo::impl {

namespace {

constexpr char const* departures[] = {"timed out",
                                      "TEARDOWN",
                                      "connection closed",
                                      "stalled for 10 s",
                                      "nobody listens on its port",
                                      "the host ended the session",
                                      "not allowed any more"};

bool isWatching(ViewerState state) { return state != ViewerState::SetUp && state != ViewerState::Paused; }

}  // namespace

void StreamObserver::describe(Description description) {
  m_Description = std::move(description);
  g_Journal->addStream(*this);
}

StreamObserver::~StreamObserver() { g_Journal->removeStream(*this); }

ViewerObserver::ViewerObserver(StreamObserver& stream, bool overUdp)
    : m_Stream(stream), m_Figures{.address = {}, .user = {}, .overUdp = overUdp, .since = Journal::now()} {
  stream.m_Viewers.push_back(this);
}

ViewerObserver::~ViewerObserver() {
  entered(ViewerState::Paused);
  std::erase(m_Stream.m_Viewers, this);
}

void ViewerObserver::setAddress(sockaddr_storage const& address) { m_Figures.address = textOf(address); }

void ViewerObserver::entered(ViewerState state) {
  int const change = (isWatching(state) ? 1 : 0) - (isWatching(m_Figures.state) ? 1 : 0);
  m_Stream.m_Watching.fetch_add(static_cast<std::uint32_t>(change), std::memory_order_relaxed);
  m_Figures.state = state;
}

void ViewerObserver::left(Departure departure) { note("left", departures[static_cast<int>(departure)]); }

void ViewerObserver::pathNarrowed(std::size_t maxPacket) {
  setMaxPacket(maxPacket);
  note("narrowed", std::to_string(maxPacket) + " bytes");
}

void ViewerObserver::sent(std::size_t bytes, bool isBusy) {
  m_IsBehind = m_IsBehind && isBusy;
  ++m_Figures.framesSent;
  m_Figures.bytesSent += bytes;
}

void ViewerObserver::dropped(std::size_t frames) {
  m_Figures.framesDropped += frames;
  if (frames > 0 && m_Figures.state == ViewerState::Playing && !m_IsBehind) {
    m_IsBehind = true;
    note("dropped", "");
  }
}

void ViewerObserver::note(char const* kind, std::string_view text) const noexcept {
  g_Journal->note(kind, m_Stream.description().name, m_Figures.address, text);
}

}  // namespace kavo::impl
