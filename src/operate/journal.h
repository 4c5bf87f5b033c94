// The events, refusals and last error of this process, and its streams. Events are recorded
// only while there is a status server. Any thread.
#pragma once

#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/nodestroy.h"
#include "base/threadannotations.h"
#include "operate/observer.h"

namespace kavo::impl {

enum class Refusal { Address, Limit, User };

class Journal : NonCopyable {
 public:
  struct Event {
    std::uint64_t number;
    double time;  // seconds since 1970
    char const* kind;
    std::string stream;
    std::string address;
    std::string text;
    std::uint64_t times = 1;
  };
  struct Error {
    double time = 0;  // 0: none yet
    std::string text;
  };
  struct Content {
    std::vector<Event> events;
    Error lastError;
    std::array<std::uint64_t, 3> refused{};  // by Refusal
  };

  static double now();

  void open() { m_IsOpen.store(true, std::memory_order_relaxed); }
  // Stops recording and discards everything.
  void close() KAVO_EXCLUDES(m_Mutex);

  void note(char const* kind, std::string_view stream, std::string_view address, std::string_view text) noexcept
      KAVO_EXCLUDES(m_Mutex);
  // Records one event a minute for each address and reason, however many refusals there are.
  void refused(Refusal refusal, sockaddr_storage const& address, char const* why) noexcept KAVO_EXCLUDES(m_Mutex);
  // A command of the host failed, or the policy file is invalid.
  void failed(char const* text) noexcept KAVO_EXCLUDES(m_Mutex);
  Content content() KAVO_EXCLUDES(m_Mutex);

  void addStream(StreamObserver& stream) KAVO_EXCLUDES(m_Mutex);
  void removeStream(StreamObserver& stream) KAVO_EXCLUDES(m_Mutex);
  // Calls the function with each stream; none is removed meanwhile.
  template <class Function>
  void forEachStream(Function const& function) KAVO_EXCLUDES(m_Mutex) {
    MutexLock lock(m_Mutex);
    for (StreamObserver const* const stream : m_Streams) {
      function(*stream);
    }
  }

 private:
  using Refuser = std::pair<std::string, char const*>;  // address and reason

  Event* add(char const* kind, std::string_view stream, std::string_view address, std::string_view text)
      KAVO_REQUIRES(m_Mutex);

  std::atomic<bool> m_IsOpen = false;
  Mutex m_Mutex;
  Content m_Content KAVO_GUARDED_BY(m_Mutex);
  std::uint64_t m_LastNumber KAVO_GUARDED_BY(m_Mutex) = 0;
  std::map<Refuser, std::uint64_t> m_Refusers KAVO_GUARDED_BY(m_Mutex);  // event numbers
  std::vector<StreamObserver*> m_Streams KAVO_GUARDED_BY(m_Mutex);
};

// The journal of the process.
extern NoDestroy<Journal> g_Journal;

}  // namespace kavo::impl
