#include "eventloop/eventtriggers.h"

#include <utility>

#include "eventloop/contained.h"

namespace kavo::impl {

EventTriggerId EventTriggers::create(TaskFunc* handler) {
  MutexLock lock(m_Mutex);
  do {
    ++m_LastId;
  } while (m_LastId == 0 || m_Triggers.contains(m_LastId));
  m_Fired.reserve(m_Triggers.size() + 1);
  m_Running.reserve(m_Triggers.size() + 1);
  m_Triggers[m_LastId] = Trigger{handler};
  return m_LastId;
}

void EventTriggers::remove(EventTriggerId id) {
  MutexLock lock(m_Mutex);
  m_Triggers.erase(id);
}

bool EventTriggers::fire(EventTriggerId id, void* clientData) {
  MutexLock lock(m_Mutex);
  auto const found = m_Triggers.find(id);
  if (found == m_Triggers.end()) {
    return false;
  }
  Trigger& trigger = found->second;
  trigger.clientData = clientData;
  if (std::exchange(trigger.fired, true)) {
    return false;
  }
  m_Fired.push_back(id);
  return m_Fired.size() == 1;
}

void EventTriggers::runFired() {
  std::size_t count = 0;
  {
    MutexLock lock(m_Mutex);
    m_Running.swap(m_Fired);
    count = m_Running.size();
  }
  for (std::size_t i = 0; i < count; ++i) {
    Trigger trigger{nullptr};
    {
      MutexLock lock(m_Mutex);
      // One that an earlier handler deleted is not there any more.
      auto const found = m_Triggers.find(m_Running[i]);
      if (found != m_Triggers.end() && std::exchange(found->second.fired, false)) {
        trigger = found->second;
      }
    }
    if (trigger.handler != nullptr) {
      contained([&] { trigger.handler(trigger.clientData); });
    }
  }
  MutexLock lock(m_Mutex);
  m_Running.clear();
}

}  // namespace kavo::impl
