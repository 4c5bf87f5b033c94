// Tasks that other threads hand to the event-loop thread.
#pragma once

#include <deque>
#include <functional>

#include "base/threadannotations.h"
#include "eventloop/eventtrigger.h"

namespace kavo::impl {

// Built and destroyed while no loop runs; add() may be called by any thread.
class EventLoopTasks {
 public:
  // Called once: with true on the event-loop thread, or with false when it will not be.
  using Task = std::function<void(bool onLoop)>;

  explicit EventLoopTasks(TaskScheduler& scheduler) KAVO_REQUIRES(eventLoopRole);

  // Runs the task in the loop's next pass, after those added before.
  void add(Task task) KAVO_EXCLUDES(m_Mutex);
  // Event-loop thread, when the loop cannot go on: no task runs any more.
  void cancel() KAVO_EXCLUDES(m_Mutex);

 private:
  void runAll() KAVO_REQUIRES(eventLoopRole) KAVO_EXCLUDES(m_Mutex);

  Mutex m_Mutex;
  std::deque<Task> m_Tasks KAVO_GUARDED_BY(m_Mutex);
  bool m_Cancelled KAVO_GUARDED_BY(m_Mutex) = false;
  EventTrigger m_Trigger;
};

}  // namespace kavo::impl
