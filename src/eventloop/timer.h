// A delayed call, cancelled when its owner is destroyed. Event-loop thread.
#pragma once

#include <UsageEnvironment.hh>
#include <chrono>
#include <functional>
#include <utility>

#include "eventloop/eventlooprole.h"

namespace kavo::impl {

class Timer {
 public:
  Timer(TaskScheduler& scheduler, std::function<void()> function)
      : m_Scheduler(scheduler), m_Function(std::move(function)) {}
  ~Timer() { m_Scheduler.unscheduleDelayedTask(m_Task); }
  Timer(Timer const&) = delete;
  Timer& operator=(Timer const&) = delete;

  // Calls the function once after the delay; a call that is still pending is replaced.
  void start(std::chrono::microseconds delay) KAVO_REQUIRES(eventLoopRole) {
    stop();
    m_Task = m_Scheduler.scheduleDelayedTask(delay.count(), expire, this);
  }
  void stop() KAVO_REQUIRES(eventLoopRole) { m_Scheduler.unscheduleDelayedTask(m_Task); }
  bool isPending() const { return m_Task != nullptr; }

 private:
  static void expire(void* timer) {
    eventLoopRole.assertHeld();
    auto* const self = static_cast<Timer*>(timer);
    self->m_Task = nullptr;
    auto const function = self->m_Function;  // which may delete the timer
    function();
  }

  TaskScheduler& m_Scheduler;
  std::function<void()> m_Function;
  TaskToken m_Task = nullptr;
};

}  // namespace kavo::impl
