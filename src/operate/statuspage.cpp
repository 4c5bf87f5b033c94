#include "operate/statuspage.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "base/threadannotations.h"
#include "base/uniquefd.h"
#include "kavo_stream.h"

namespace kavo::impl::status {

std::atomic<kv_status_page*> g_Page = nullptr;

namespace {

// A stream's record is given back by whichever thread forgets the stream last, while
// others take theirs. Viewers come and go on the event-loop thread alone.
Mutex g_StreamRecordsMutex;

std::string nameOf(char const* pattern) {
  std::string name = pattern;
  std::string const pid = std::to_string(getpid());
  for (auto at = name.find("%p"); at != std::string::npos; at = name.find("%p", at + pid.size())) {
    name.replace(at, 2, pid);
  }
  return name;
}

void complain(std::string const& name) {
  int const error = errno;
  std::fprintf(stderr, "kavo_stream: no status page in '%s': %s\n", name.c_str(), std::strerror(error));
}

void describe(kv_status_process& process) {
  std::memcpy(process.magic, KV_STATUS_MAGIC, sizeof process.magic);
  process.version = KV_STATUS_VERSION;
  process.size = sizeof(kv_status_page);
  std::snprintf(process.library, sizeof process.library, "%d.%d.%d", KV_VERSION_MAJOR, KV_VERSION_MINOR,
                KV_VERSION_PATCH);
  process.pid = static_cast<std::uint32_t>(getpid());
  process.start = now();
}

// Made beside its name and renamed when it is whole: whoever opens the name sees a
// page, and a symbolic link under it is replaced, not followed. All its blocks are
// taken now, since a store would end the process where a full disk has no room for it.
kv_status_page* makeFile(std::string const& name) {
  std::string making = name + ".XXXXXX";
  UniqueFd const file(mkostemp(making.data(), O_CLOEXEC));  // mode 0600
  if (file.get() < 0) {
    return nullptr;
  }
  void* memory = MAP_FAILED;
  errno = posix_fallocate(file.get(), 0, sizeof(kv_status_page));
  if (errno == 0) {
    memory = mmap(nullptr, sizeof(kv_status_page), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  }
  if (memory != MAP_FAILED) {
    describe(static_cast<kv_status_page*>(memory)->process);
    if (rename(making.c_str(), name.c_str()) == 0) {
      return static_cast<kv_status_page*>(memory);
    }
    int const error = errno;
    munmap(memory, sizeof(kv_status_page));
    errno = error;
  }
  int const error = errno;
  unlink(making.c_str());
  errno = error;
  return nullptr;
}

// A place in the table that nobody has; null when it is full.
template <class Record, std::size_t Size, class IsFree>
Record* find(Record (&table)[Size], IsFree const& isFree) {
  auto* const found = std::find_if(std::begin(table), std::end(table), isFree);
  return found != std::end(table) ? found : nullptr;
}

}  // namespace

void open() noexcept {
  try {
    char const* const pattern = secure_getenv("KAVO_STREAM_STATUS");
    if (pattern == nullptr || *pattern == '\0') {
      return;
    }
    kv_status_page const* const before = page();
    if (before != nullptr && before->process.pid == static_cast<std::uint32_t>(getpid())) {
      return;
    }
    close();  // after a fork it is the parent's
    std::string const name = nameOf(pattern);
    g_Page = makeFile(name);
    if (page() == nullptr) {
      complain(name);
    }
  } catch (...) {  // no memory: no page
  }
}

void close() noexcept {
  if (kv_status_page* const before = g_Page.exchange(nullptr)) {
    munmap(before, sizeof *before);
  }
}

std::uint64_t now() {
  auto const time = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

void note(kv_status_event_kind kind, std::string_view stream, std::string_view address,
          std::string_view more) noexcept {
  kv_status_page* const to = page();
  if (to == nullptr) {
    return;
  }
  std::uint64_t const number = std::atomic_ref(to->process.events).fetch_add(1, std::memory_order_relaxed) + 1;
  kv_status_event& event = to->events[number % KV_STATUS_EVENTS];
  std::atomic_ref(event.number).exchange(0, std::memory_order_acquire);
  put(event.time, now());
  put(event.kind, kind);
  putText(event.stream, stream);
  std::string_view const between = address.empty() || more.empty() ? "" : ": ";
  char text[sizeof event.text];
  std::snprintf(text, sizeof text, "%.*s%.*s%.*s", static_cast<int>(address.size()), address.data(),
                static_cast<int>(between.size()), between.data(), static_cast<int>(more.size()), more.data());
  putText(event.text, text);
  std::atomic_ref(event.number).store(number, std::memory_order_release);
}

void noteFailure(int command, int result, char const* text) noexcept {
  kv_status_page* const to = page();
  if (to == nullptr) {
    return;
  }
  note(KV_STATUS_FAILED, "", "", text);
  // Host threads may fail at the same time; whoever comes second leaves it.
  kv_status_error& error = to->process.last_error;
  std::atomic_ref sequence(error.sequence);
  std::uint32_t before = sequence.load(std::memory_order_relaxed);
  if (before % 2 != 0 || !sequence.compare_exchange_strong(before, before + 1, std::memory_order_acquire)) {
    return;
  }
  put(error.command, command);
  put(error.result, result);
  put(error.time, now());
  putText(error.text, text);
  sequence.store(before + 2, std::memory_order_release);
}

void putNowAndMost(std::uint32_t kv_status_process::* now, std::uint32_t kv_status_process::* most, std::size_t count) {
  if (kv_status_page* const to = page()) {
    auto const number = static_cast<std::uint32_t>(count);
    put(to->process.*now, number);
    put(to->process.*most, std::max(to->process.*most, number));
  }
}

void StreamPlace::take(std::string const& name, kv_status_stream const& description) {
  kv_status_page* const on = page();
  if (on == nullptr) {
    return;
  }
  m_Name = name;
  m_Counted = true;
  increase(on->process.streams);
  MutexLock lock(g_StreamRecordsMutex);
  m_Record = find(on->streams, [](kv_status_stream& record) { return get(record.codec) == 0; });
  if (m_Record != nullptr) {
    Change const change(*m_Record);
    kv_status_stream record = description;
    record.sequence = m_Record->sequence;
    record.since = now();
    putText(record.name, name);
    *m_Record = record;
  }
}

StreamPlace::~StreamPlace() {
  kv_status_page* const on = page();
  if (m_Counted && on != nullptr) {
    increase(on->process.streams, static_cast<std::uint32_t>(-1));
    MutexLock lock(g_StreamRecordsMutex);
    if (m_Record != nullptr) {
      Change const change(*m_Record);
      put(m_Record->codec, 0);
    }
  }
}

std::uint32_t StreamPlace::index() const {
  return m_Record != nullptr ? static_cast<std::uint32_t>(m_Record - page()->streams)
                             : static_cast<std::uint32_t>(KV_STATUS_STREAMS);
}

void ViewerPlace::take(kv_status_transport transport, std::uint32_t stream) {
  kv_status_page* const on = page();
  if (on == nullptr) {
    return;
  }
  m_Counted = true;
  increase(on->process.viewers);
  m_Record = find(on->viewers, [](kv_status_viewer& record) { return get(record.state) == KV_STATUS_NOBODY; });
  if (m_Record != nullptr) {
    Change const change(*m_Record);
    kv_status_viewer record{};
    record.sequence = m_Record->sequence;
    record.state = KV_STATUS_SET_UP;
    record.transport = transport;
    record.stream = stream;
    record.since = now();
    *m_Record = record;
  }
}

void ViewerPlace::putAddress(std::string const& address) {
  if (m_Record != nullptr) {
    Change const change(*m_Record);
    putText(m_Record->address, address);
  }
}

ViewerPlace::~ViewerPlace() {
  kv_status_page* const on = page();
  if (m_Counted && on != nullptr) {
    increase(on->process.viewers, static_cast<std::uint32_t>(-1));
    if (m_Record != nullptr) {
      Change const change(*m_Record);
      put(m_Record->state, KV_STATUS_NOBODY);
    }
  }
}

}  // namespace kavo::impl::status
