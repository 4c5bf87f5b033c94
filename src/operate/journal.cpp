#include "operate/journal.h"

#include <chrono>
#include <utility>

#include "base/address.h"

namespace kavo::impl {

namespace {

constexpr std::size_t mostEvents = 256;
constexpr double refusalPeriod = 60;  // seconds

}  // namespace

NoDestroy<Journal> g_Journal;

double Journal::now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void Journal::close() {
  m_IsOpen.store(false, std::memory_order_relaxed);
  MutexLock lock(m_Mutex);
  auto const gone = std::exchange(m_Content, {});  // frees the memory, which an assignment would keep
  m_Refusers.clear();
  std::vector<StreamObserver*>(m_Streams).swap(m_Streams);
}

Journal::Event* Journal::add(char const* kind, std::string_view stream, std::string_view address,
                             std::string_view text) {
  auto& events = m_Content.events;
  events.push_back({m_LastNumber + 1, now(), kind, std::string(stream), std::string(address), std::string(text)});
  ++m_LastNumber;
  if (events.size() > mostEvents) {
    events.erase(events.begin());
  }
  return &events.back();
}

void Journal::note(char const* kind, std::string_view stream, std::string_view address,
                   std::string_view text) noexcept {
  if (m_IsOpen.load(std::memory_order_relaxed)) {
    try {
      MutexLock lock(m_Mutex);
      add(kind, stream, address, text);
    } catch (...) {  // without memory the event is lost
    }
  }
}

void Journal::refused(Refusal refusal, sockaddr_storage const& address, char const* why) noexcept {
  if (!m_IsOpen.load(std::memory_order_relaxed)) {
    return;
  }
  try {
    MutexLock lock(m_Mutex);
    ++m_Content.refused[static_cast<std::size_t>(refusal)];
    auto& events = m_Content.events;
    std::uint64_t const oldest = m_LastNumber - events.size() + 1;
    std::erase_if(m_Refusers, [&](auto const& entry) KAVO_REQUIRES(m_Mutex) {
      return entry.second < oldest || now() - events[entry.second - oldest].time > refusalPeriod;
    });
    std::string text = textOf(address);
    text.resize(text.rfind(':'));
    std::uint64_t& number = m_Refusers[{text, why}];
    if (number != 0) {
      ++events[number - oldest].times;
    } else {
      number = add("refused", "", text, why)->number;
    }
  } catch (...) {  // without memory the event is lost
  }
}

void Journal::failed(char const* text) noexcept {
  if (m_IsOpen.load(std::memory_order_relaxed)) {
    note("failed", "", "", text);
    try {
      MutexLock lock(m_Mutex);
      m_Content.lastError = {now(), text};
    } catch (...) {  // without memory the previous error remains
    }
  }
}

Journal::Content Journal::content() {
  MutexLock lock(m_Mutex);
  return m_Content;
}

void Journal::addStream(StreamObserver& stream) {
  MutexLock lock(m_Mutex);
  m_Streams.push_back(&stream);
}

void Journal::removeStream(StreamObserver& stream) {
  MutexLock lock(m_Mutex);
  std::erase(m_Streams, &stream);
}

}  // namespace kavo::impl
