#include "eventloop/eventlooptasks.h"

#include <utility>

namespace kavo::impl {

EventLoopTasks::EventLoopTasks(TaskScheduler& scheduler)
    : m_Trigger(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { runAll(); }) {}

void EventLoopTasks::add(Task task) {
  {
    MutexLock lock(m_Mutex);
    if (!m_Cancelled) {
      m_Tasks.push_back(std::move(task));
      m_Trigger.fire();
      return;
    }
  }
  task(false);
}

// Each is taken out before it runs, since it may add another, and none is lost
// if memory runs out meanwhile.
void EventLoopTasks::runAll() {
  while (true) {
    Task task;
    {
      MutexLock lock(m_Mutex);
      if (m_Tasks.empty()) {
        return;
      }
      task = std::move(m_Tasks.front());
      m_Tasks.pop_front();
    }
    task(true);
  }
}

void EventLoopTasks::cancel() {
  std::deque<Task> tasks;
  {
    MutexLock lock(m_Mutex);
    m_Cancelled = true;
    tasks.swap(m_Tasks);
  }
  for (auto const& task : tasks) {
    task(false);
  }
}

}  // namespace kavo::impl
