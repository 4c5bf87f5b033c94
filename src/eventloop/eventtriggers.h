// Event triggers without a limit to their number. Any thread fires one; creating,
// deleting and running them is the event-loop thread's.
#pragma once

#include <UsageEnvironment.hh>
#include <unordered_map>
#include <vector>

#include "base/threadannotations.h"

namespace kavo::impl {

class EventTriggers {
 public:
  // Never 0, and not used again for a long time after it was deleted.
  EventTriggerId create(TaskFunc* handler) KAVO_EXCLUDES(m_Mutex);
  // A pending trigger is cancelled.
  void remove(EventTriggerId id) KAVO_EXCLUDES(m_Mutex);

  // Schedules the handler. Calls before it runs coalesce, and the last client data
  // wins. True if the loop must be woken.
  bool fire(EventTriggerId id, void* clientData) KAVO_EXCLUDES(m_Mutex);

  // Runs what has been fired, in that order. Handlers may create, delete and fire;
  // an exception ends its handler only.
  void runFired() KAVO_EXCLUDES(m_Mutex);

 private:
  struct Trigger {
    TaskFunc* handler;
    void* clientData = nullptr;
    bool fired = false;
  };

  Mutex m_Mutex;
  std::unordered_map<EventTriggerId, Trigger> m_Triggers KAVO_GUARDED_BY(m_Mutex);
  // Both have room for all triggers, so that firing and running take no memory.
  std::vector<EventTriggerId> m_Fired KAVO_GUARDED_BY(m_Mutex);
  std::vector<EventTriggerId> m_Running KAVO_GUARDED_BY(m_Mutex);
  EventTriggerId m_LastId KAVO_GUARDED_BY(m_Mutex) = 0;
};

}  // namespace kavo::impl
