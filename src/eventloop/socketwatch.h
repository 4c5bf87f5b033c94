// Watches a socket for as long as its owner exists. Event-loop thread.
#pragma once

#include <UsageEnvironment.hh>
#include <functional>
#include <utility>

#include "base/streamexception.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/eventlooprole.h"

namespace kavo::impl {

class SocketWatch {
 public:
  // Calls the function with the conditions that are met (SOCKET_READABLE, SOCKET_WRITABLE).
  SocketWatch(TaskScheduler& scheduler, int socket, std::function<void(int)> function)
      : m_Scheduler(scheduler), m_Socket(socket), m_Function(std::move(function)) {}
  ~SocketWatch() { m_Scheduler.disableBackgroundHandling(m_Socket); }
  SocketWatch(SocketWatch const&) = delete;
  SocketWatch& operator=(SocketWatch const&) = delete;

  // Throws when the socket cannot be watched.
  void start(int conditions) KAVO_REQUIRES(eventLoopRole) {
    m_Scheduler.setBackgroundHandling(m_Socket, conditions, ready, this);
    auto const* const scheduler = dynamic_cast<EpollScheduler const*>(&m_Scheduler);
    if (m_Socket >= 0 && scheduler != nullptr && !scheduler->isWatched(m_Socket)) {
      throw StreamException("Socket cannot be watched", ErrorResource);
    }
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

}  // namespace kavo::impl
