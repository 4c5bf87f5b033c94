// Waits for conditions of a socket until its owner goes. Event-loop thread.
#pragma once

#include <UsageEnvironment.hh>
#include <functional>
#include <utility>

#include "eventloop/eventlooprole.h"

namespace kavo {

class SocketWatch {
 public:
  // Calls the function with the conditions that are met (SOCKET_READABLE, SOCKET_WRITABLE).
  SocketWatch(TaskScheduler& scheduler, int socket, std::function<void(int)> function)
      : m_Scheduler(scheduler), m_Socket(socket), m_Function(std::move(function)) {}
  ~SocketWatch() { m_Scheduler.disableBackgroundHandling(m_Socket); }
  SocketWatch(SocketWatch const&) = delete;
  SocketWatch& operator=(SocketWatch const&) = delete;

  void start(int conditions) KAVO_REQUIRES(eventLoopRole) {
    m_Scheduler.setBackgroundHandling(m_Socket, conditions, ready, this);
  }
  void stop() KAVO_REQUIRES(eventLoopRole) { m_Scheduler.disableBackgroundHandling(m_Socket); }

 private:
  static void ready(void* watch, int conditions) {
    eventLoopRole.assertHeld();
    auto const function = static_cast<SocketWatch*>(watch)->m_Function;  // which may delete the watch
    function(conditions);
  }

  TaskScheduler& m_Scheduler;
  int m_Socket;
  std::function<void(int)> m_Function;
};

}  // namespace kavo
