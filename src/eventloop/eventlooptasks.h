// Work that other threads want done on the event-loop thread.
#pragma once

#include <deque>
#include <functional>

#include "base/threadannotations.h"
#include "eventloop/eventtrigger.h"

namespace kavo {

// Built and destroyed while no loop runs; add() may be called by any thread.
class EventLoopTasks {
 public:
  explicit EventLoopTasks(TaskScheduler& scheduler) KAVO_REQUIRES(eventLoopRole);

  // Has the loop run the task in its next pass, after those added before.
  void add(std::function<void()> task) KAVO_EXCLUDES(m_Mutex);

 private:
  void runAll() KAVO_REQUIRES(eventLoopRole) KAVO_EXCLUDES(m_Mutex);

  Mutex m_Mutex;
  std::deque<std::function<void()>> m_Tasks KAVO_GUARDED_BY(m_Mutex);
  EventTrigger m_Trigger;
};

}  // namespace kavo
