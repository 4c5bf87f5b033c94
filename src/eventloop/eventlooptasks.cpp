#include "eventloop/eventlooptasks.h"

#include <utility>

namespace kavo {

EventLoopTasks::EventLoopTasks(TaskScheduler& scheduler)
    : m_Scheduler(scheduler), m_Trigger(scheduler.createEventTrigger(runAll)) {}

EventLoopTasks::~EventLoopTasks() { m_Scheduler.deleteEventTrigger(m_Trigger); }

void EventLoopTasks::add(std::function<void()> task) {
  {
    Locked lock(m_Mutex);
    m_Tasks.push_back(std::move(task));
  }
  m_Scheduler.triggerEvent(m_Trigger, this);
}

void EventLoopTasks::runAll(void* clientData) {
  eventLoopRole.assertHeld();
  auto* self = static_cast<EventLoopTasks*>(clientData);
  std::deque<std::function<void()>> tasks;
  {
    Locked lock(self->m_Mutex);
    tasks.swap(self->m_Tasks);
  }
  // Outside the lock: a task may add another.
  for (auto& task : tasks) {
    task();
  }
}

}  // namespace kavo
