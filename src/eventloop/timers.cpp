#include "eventloop/timers.h"

#include <algorithm>
#include <bit>

#include "eventloop/contained.h"

namespace kavo::impl {

namespace {
constexpr int tasksInARow = 32;
// Longer than any real delay, and far from the clock's end.
constexpr std::int64_t longestDelay = std::int64_t{10} * 365 * 24 * 3600 * 1000000;
}  // namespace

TaskToken Timers::schedule(std::int64_t microseconds, TaskFunc* task, void* clientData) {
  auto const delay = std::chrono::microseconds(std::clamp<std::int64_t>(microseconds, 0, longestDelay));
  Key const key{Clock::now() + delay, ++m_LastToken};
  auto const due = m_DueTimes.emplace(key.second, key.first).first;
  try {
    m_Tasks.emplace(key, Task{task, clientData});
  } catch (...) {
    m_DueTimes.erase(due);
    throw;
  }
  return std::bit_cast<TaskToken>(key.second);
}

void Timers::cancel(TaskToken token) {
  auto const found = m_DueTimes.find(std::bit_cast<std::uintptr_t>(token));
  if (found != m_DueTimes.end()) {
    m_Tasks.erase({found->second, found->first});
    m_DueTimes.erase(found);
  }
}

std::chrono::microseconds Timers::untilNext(std::chrono::microseconds limit) const {
  if (m_Tasks.empty()) {
    return limit;
  }
  auto const left = std::chrono::ceil<std::chrono::microseconds>(m_Tasks.begin()->first.first - Clock::now());
  return std::clamp(left, std::chrono::microseconds::zero(), limit);
}

void Timers::runDue() {
  for (int i = 0; i < tasksInARow && !m_Tasks.empty() && m_Tasks.begin()->first.first <= Clock::now(); ++i) {
    auto const first = m_Tasks.begin();
    Task const task = first->second;
    m_DueTimes.erase(first->first.second);
    m_Tasks.erase(first);
    contained([&] { task.function(task.clientData); });
  }
}

}  // namespace kavo::impl
