// Work that other threads want done on the event-loop thread.
#pragma once

#include <UsageEnvironment.hh>
#include <deque>
#include <functional>

#include "base/threadannotations.h"
#include "eventloop/eventlooprole.h"

namespace kavo {

// Built and destroyed while no loop runs; add() may be called by any thread.
class EventLoopTasks {
 public:
  explicit EventLoopTasks(TaskScheduler& scheduler) KAVO_REQUIRES(eventLoopRole);
  ~EventLoopTasks();
  EventLoopTasks(EventLoopTasks const&) = delete;
  EventLoopTasks& operator=(EventLoopTasks const&) = delete;

  // Has the loop run the task in its next pass, after those added before.
  void add(std::function<void()> task) KAVO_EXCLUDES(m_Mutex);

 private:
  static void runAll(void* tasks);

  TaskScheduler& m_Scheduler;
  EventTriggerId m_Trigger;
  Mutex m_Mutex;
  std::deque<std::function<void()>> m_Tasks KAVO_GUARDED_BY(m_Mutex);
};

}  // namespace kavo
