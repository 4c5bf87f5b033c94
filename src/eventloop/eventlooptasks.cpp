#include "eventloop/eventlooptasks.h"

#include <utility>

namespace kavo {

EventLoopTasks::EventLoopTasks(TaskScheduler& scheduler)
    : m_Trigger(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { runAll(); }) {}

void EventLoopTasks::add(std::function<void()> task) {
  {
    Locked lock(m_Mutex);
    m_Tasks.push_back(std::move(task));
  }
  m_Trigger.fire();
}

void EventLoopTasks::runAll() {
  std::deque<std::function<void()>> tasks;
  {
    Locked lock(m_Mutex);
    tasks.swap(m_Tasks);
  }
  // Outside the lock: a task may add another.
  for (auto& task : tasks) {
    task();
  }
}

}  // namespace kavo
