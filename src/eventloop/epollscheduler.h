// live555's task scheduler on epoll: sockets of any number, event triggers of any
// number that wake the loop at once, and timers unaffected by clock changes.
#pragma once

#include <sys/epoll.h>

#include <BasicUsageEnvironment.hh>
#include <chrono>
#include <span>
#include <unordered_map>

#include "base/uniquefd.h"
#include "eventloop/eventtriggers.h"
#include "eventloop/timers.h"

namespace kavo::impl {

// Event-loop thread, but for triggerEvent(), which any thread may call.
class EpollScheduler : public BasicTaskScheduler {
 public:
  // The loop iterates at least every maxGranularity microseconds. Null
  // when the process has no descriptors left.
  static EpollScheduler* createNew(unsigned maxGranularity);

  TaskToken scheduleDelayedTask(int64_t microseconds, TaskFunc* task, void* clientData) override;
  void unscheduleDelayedTask(TaskToken& task) override;

  // Whether events of the socket will be reported: the kernel may be out of memory,
  // or the user out of watches.
  bool isWatched(int socket) const { return m_Handlers.contains(socket); }

  EventTriggerId createEventTrigger(TaskFunc* handler) override;
  void deleteEventTrigger(EventTriggerId id) override;
  void triggerEvent(EventTriggerId id, void* clientData) override;

 protected:
  EpollScheduler(unsigned maxGranularity, UniqueFd epoll, UniqueFd wakeUp);

  void SingleStep(unsigned maxDelayTime) override;
  void setBackgroundHandling(int socket, int conditions, BackgroundHandlerProc* handler, void* clientData) override;
  void moveSocketHandling(int oldSocket, int newSocket) override;

 private:
  struct Handler {
    int conditions;
    BackgroundHandlerProc* function;
    void* clientData;
    std::uint32_t version;  // identifies stale events for a reused descriptor
  };

  int wait(std::span<epoll_event> events, std::chrono::microseconds limit);
  void drainWakeUp();
  void handle(std::uint64_t key, std::uint32_t events);

  bool m_HasPwait2 = true;
  UniqueFd m_Epoll;
  UniqueFd m_WakeUp;
  EventTriggers m_Triggers;
  Timers m_Timers;
  std::unordered_map<int, Handler> m_Handlers;
  std::uint32_t m_LastVersion = 0;
};

}  // namespace kavo::impl
