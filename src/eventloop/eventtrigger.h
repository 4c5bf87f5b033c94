// A call on the event-loop thread that any thread can request, cancelled when its
// owner is destroyed.
#pragma once

#include <UsageEnvironment.hh>
#include <functional>
#include <utility>

#include "eventloop/eventlooprole.h"

namespace kavo::impl {

// Created and destroyed on the event-loop thread, or while no loop runs.
class EventTrigger {
 public:
  EventTrigger(TaskScheduler& scheduler, std::function<void()> function) KAVO_REQUIRES(eventLoopRole)
      : m_Scheduler(scheduler), m_Function(std::move(function)), m_Id(scheduler.createEventTrigger(run)) {}
  ~EventTrigger() { m_Scheduler.deleteEventTrigger(m_Id); }
  EventTrigger(EventTrigger const&) = delete;
  EventTrigger& operator=(EventTrigger const&) = delete;

  // Any thread. Calls coalesce until the function runs, so it must look at what
  // there is to do and not count the calls.
  void fire() { m_Scheduler.triggerEvent(m_Id, this); }

 private:
  static void run(void* trigger) {
    eventLoopRole.assertHeld();
    auto const function = static_cast<EventTrigger*>(trigger)->m_Function;  // which may delete the trigger
    function();
  }

  TaskScheduler& m_Scheduler;
  std::function<void()> m_Function;
  EventTriggerId const m_Id;
};

}  // namespace kavo::impl
