// The event trigger with which a host thread wakes one frame source.
#pragma once

#include <UsageEnvironment.hh>

#include "eventloop/eventlooprole.h"

namespace kavo {

class FrameTrigger {
 public:
  FrameTrigger(TaskScheduler& scheduler, TaskFunc* handler) KAVO_REQUIRES(eventLoopRole)
      : m_Scheduler(scheduler), m_EventTriggerId(scheduler.createEventTrigger(handler)) {}
  ~FrameTrigger() { m_Scheduler.deleteEventTrigger(m_EventTriggerId); }
  FrameTrigger(FrameTrigger const&) = delete;
  FrameTrigger& operator=(FrameTrigger const&) = delete;

  // Any thread. Calls before the loop's next pass are merged into one run of
  // the handler. Without a trigger (none was left) it does nothing.
  void fire(TaskScheduler& scheduler, void* clientData) const {
    if (m_EventTriggerId != 0) {
      scheduler.triggerEvent(m_EventTriggerId, clientData);
    }
  }

 private:
  TaskScheduler& m_Scheduler;
  EventTriggerId const m_EventTriggerId;  // 0: none could be created
};

}  // namespace kavo
