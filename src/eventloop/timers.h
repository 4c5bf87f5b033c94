// Delayed tasks on the monotonic clock, unaffected by changes of the wall clock. Event-loop
// thread.
#pragma once

#include <UsageEnvironment.hh>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory_resource>
#include <unordered_map>
#include <utility>

namespace kavo::impl {

class Timers {
 public:
  using Clock = std::chrono::steady_clock;

  // A delay of zero or less is due at once. Tasks due at the same time run in the order in
  // which they were scheduled.
  TaskToken schedule(std::int64_t microseconds, TaskFunc* task, void* clientData);
  // Does nothing for a task that has run or was never scheduled.
  void cancel(TaskToken token);

  // How long until the next task is due, at most the limit and never below zero.
  std::chrono::microseconds untilNext(std::chrono::microseconds limit) const;
  // Runs the tasks that are due, including new ones that they schedule, up to a limit so that
  // sockets are not starved. An exception ends only its task.
  void runDue();

 private:
  using Key = std::pair<Clock::time_point, std::uintptr_t>;  // when due, and the token
  struct Task {
    TaskFunc* function;
    void* clientData;
  };

  // Reuses memory, because tasks come and go all the time.
  std::pmr::unsynchronized_pool_resource m_Memory;
  std::pmr::map<Key, Task> m_Tasks{&m_Memory};
  std::pmr::unordered_map<std::uintptr_t, Clock::time_point> m_DueTimes{&m_Memory};
  std::uintptr_t m_LastToken = 0;
};

}  // namespace kavo::impl
