// live555's task scheduler on epoll: any number of sockets, calls from other threads that
// wake the loop at once, and timers unaffected by clock changes. live555's event triggers,
// which would wake the loop up to 10 ms late, are not supported.
#pragma once

#include <sys/epoll.h>

#include <BasicUsageEnvironment.hh>
#include <chrono>
#include <span>
#include <unordered_map>

#include "base/uniquefd.h"
#include "eventloop/loopcalls.h"
#include "eventloop/timers.h"

namespace kavo::impl {

// Event-loop thread, except request(), which any thread may call.
class EpollScheduler : public BasicTaskScheduler {
 public:
  // The loop iterates at least every maxGranularity microseconds. Null if the process has no
  // descriptors left.
  static EpollScheduler* createNew(unsigned maxGranularity);

  TaskToken scheduleDelayedTask(int64_t microseconds, TaskFunc* task, void* clientData) override;
  void unscheduleDelayedTask(TaskToken& task) override;

  // Whether events of the socket will be reported. They are not if the kernel had no memory or
  // the user's limit of watches is reached.
  bool isWatched(int socket) const { return m_Handlers.contains(socket); }

  // Any thread. Runs the call in the loop's next pass.
  void request(LoopCall& call);
  void withdraw(LoopCall& call) { m_Calls.withdraw(call); }
  // Call when the loop has failed: ends the pending calls.
  void closeCalls() { m_Calls.close(); }

  void setBackgroundHandling(int socket, int conditions, BackgroundHandlerProc* handler, void* clientData) override;

 protected:
  EpollScheduler(unsigned maxGranularity, UniqueFd epoll, UniqueFd wakeUp);

  void SingleStep(unsigned maxDelayTime) override;
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
  LoopCalls m_Calls;
  Timers m_Timers;
  std::unordered_map<int, Handler> m_Handlers;
  std::uint32_t m_LastVersion = 0;
};

}  // namespace kavo::impl
