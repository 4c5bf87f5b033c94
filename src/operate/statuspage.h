// The status page (kavo_status.h): a file mapped into memory, and the records that
// streams and viewers have on it. It exists while KAVO_STREAM_STATUS names one;
// without it everything here does nothing. Any thread, as each function says.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "base/noncopyable.h"
#include "kavo_status.h"

namespace kavo::impl::status {

// The page; null where there is none. Set once, before the server starts, and
// unmapped when the library is unloaded.
extern std::atomic<kv_status_page*> g_Page;
inline kv_status_page* page() { return g_Page.load(std::memory_order_relaxed); }

// Makes the file that the environment names, once in a process. While nothing serves. One
// line on standard error where it cannot be made: the host streams all the same.
void open() noexcept;
// At the end of the library. The file stays.
void close() noexcept;

// Readers see each value whole. Every value has one writer at a time, but for those
// that are added to with increase().
template <class T>
void put(T& place, std::type_identity_t<T> value) {
  std::atomic_ref<T>(place).store(value, std::memory_order_relaxed);
}
template <class T>
T get(T& place) {
  return std::atomic_ref<T>(place).load(std::memory_order_relaxed);
}
template <class T>
void add(T& place, std::type_identity_t<T> amount = 1) {
  put(place, place + amount);
}
template <class T>
void increase(T& place, std::type_identity_t<T> amount = 1) {
  std::atomic_ref<T>(place).fetch_add(amount, std::memory_order_relaxed);
}
template <std::size_t Size>
void putText(char (&place)[Size], std::string_view text) {
  for (std::size_t i = 0; i < Size; ++i) {
    put(place[i], i < text.size() && i + 1 < Size ? text[i] : '\0');
  }
}

std::uint64_t now();  // microseconds since 1970

// While it exists, readers leave the record alone.
template <class Record>
class Change : NonCopyable {
 public:
  explicit Change(Record& record) : m_Record(record) {
    // What is written next stays behind this.
    std::atomic_ref(record.sequence).fetch_add(1, std::memory_order_acquire);
  }
  ~Change() {
    std::atomic_ref<std::uint32_t>(m_Record.sequence).store(m_Record.sequence + 1, std::memory_order_release);
  }

 private:
  Record& m_Record;
};

// The text is "address: more", or the one of them that is not empty.
void note(kv_status_event_kind kind, std::string_view stream, std::string_view address, std::string_view more) noexcept;
void noteFailure(int command, int result, char const* text) noexcept;

// What the page says of the process, where there is one.
template <class T>
void putProcess(T kv_status_process::* member, std::type_identity_t<T> value) {
  if (kv_status_page* const to = page()) {
    put(to->process.*member, value);
  }
}
template <class T>
void increaseProcess(T kv_status_process::* member, std::type_identity_t<T> amount = 1) {
  if (kv_status_page* const to = page()) {
    increase(to->process.*member, amount);
  }
}
void putNowAndMost(std::uint32_t kv_status_process::* now, std::uint32_t kv_status_process::* most, std::size_t count);

// A stream's record, and a viewer's. They may have none.
template <class Record>
class Place : NonCopyable {
 public:
  Place() = default;

  explicit operator bool() const { return m_Record != nullptr; }
  Record* operator->() const { return m_Record; }
  template <class T>
  void add(T Record::* member, std::type_identity_t<T> amount = 1) const {
    if (m_Record != nullptr) {
      status::add(m_Record->*member, amount);
    }
  }

 protected:
  Record* m_Record = nullptr;
};

class StreamPlace : public Place<kv_status_stream> {
 public:
  ~StreamPlace();
  // Takes a free record and writes who has it: what the sequence guards. Host thread, one at a time.
  void take(std::string const& name, kv_status_stream const& description);
  std::uint32_t index() const;
  // Of the session; also where it has no record.
  std::string const& name() const { return m_Name; }

 private:
  std::string m_Name;
  bool m_Counted = false;
};

class ViewerPlace : public Place<kv_status_viewer> {
 public:
  ~ViewerPlace();
  // Event-loop thread.
  void take(kv_status_transport transport, std::uint32_t stream);
  void putAddress(std::string const& address);

 private:
  bool m_Counted = false;
};

}  // namespace kavo::impl::status
