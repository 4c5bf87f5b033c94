// Callbacks for objects on the event loop: after a delay, when a socket is ready, or when
// any thread fires a trigger. Destroying a handle cancels its callback.
#pragma once

#include <UsageEnvironment.hh>
#include <chrono>
#include <utility>

#include "base/streamexception.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/eventlooprole.h"
#include "eventloop/handler.h"

namespace kavo::impl {

// Event-loop thread.
template <class... Arguments>
class LoopHandle : NonCopyable {
 protected:
  LoopHandle(TaskScheduler& scheduler, typename Handler<Arguments...>::Function function)
      : m_Scheduler(static_cast<EpollScheduler&>(scheduler)), m_Handler(std::move(function)) {}
  ~LoopHandle() = default;

  EpollScheduler& m_Scheduler;
  Handler<Arguments...> m_Handler;
};

// Event-loop thread.
class Timer : LoopHandle<> {
 public:
  Timer(TaskScheduler& scheduler, std::function<void()> function) : LoopHandle(scheduler, std::move(function)) {}
  ~Timer() { m_Scheduler.unscheduleDelayedTask(m_Task); }

  // Calls the function once after the delay; replaces a pending call.
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
    self->m_Handler();
  }

  TaskToken m_Task = nullptr;
};

// Event-loop thread.
class SocketWatch : LoopHandle<int> {
 public:
  // Calls the function with the conditions that are met (SOCKET_READABLE, SOCKET_WRITABLE).
  SocketWatch(TaskScheduler& scheduler, int socket, std::function<void(int)> function)
      : LoopHandle(scheduler, std::move(function)), m_Socket(socket) {}
  ~SocketWatch() { m_Scheduler.disableBackgroundHandling(m_Socket); }

  // Throws if the socket cannot be watched.
  void start(int conditions) KAVO_REQUIRES(eventLoopRole) {
    // The analyzer loses track of the scheduler in the base class.
    m_Scheduler.setBackgroundHandling(m_Socket, conditions, ready, this);  // NOLINT(clang-analyzer-core.CallAndMessage)
    if (m_Socket >= 0 && !m_Scheduler.isWatched(m_Socket)) {
      throw StreamException("Socket cannot be watched", ErrorResource);
    }
  }
  void stop() KAVO_REQUIRES(eventLoopRole) { m_Scheduler.disableBackgroundHandling(m_Socket); }

 private:
  static void ready(void* watch, int conditions) {
    eventLoopRole.assertHeld();
    static_cast<SocketWatch*>(watch)->m_Handler(conditions);
  }

  int const m_Socket;
};

// Created and destroyed on the event-loop thread, or while no loop runs.
class EventTrigger : LoopHandle<>, LoopCall {
 public:
  EventTrigger(TaskScheduler& scheduler, std::function<void()> function) : LoopHandle(scheduler, std::move(function)) {}
  ~EventTrigger() override { m_Scheduler.withdraw(*this); }

  // Any thread. Calls coalesce until the function runs, so it must check what there is to do
  // instead of counting calls.
  void fire() { m_Scheduler.request(*this); }

 private:
  void run(bool onLoop) override {
    if (onLoop) {
      eventLoopRole.assertHeld();
      m_Handler();
    }
  }
};

}  // namespace kavo::impl
