#include "eventloop/epollscheduler.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <utility>

#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

constexpr std::uint64_t wakeUpKey = ~std::uint64_t{0};

std::uint64_t keyOf(int socket, std::uint32_t version) {
  return std::uint64_t{version} << 32 | static_cast<std::uint32_t>(socket);
}

std::uint32_t eventsOf(int conditions) {
  return ((conditions & SOCKET_READABLE) != 0 ? EPOLLIN : 0U) | ((conditions & SOCKET_WRITABLE) != 0 ? EPOLLOUT : 0U) |
         ((conditions & SOCKET_EXCEPTION) != 0 ? EPOLLPRI : 0U);
}

// On error, reports every requested condition: the handler finds the error when it reads or
// writes.
int conditionsOf(std::uint32_t events) {
  if ((events & (EPOLLERR | EPOLLHUP)) != 0) {
    return SOCKET_READABLE | SOCKET_WRITABLE | SOCKET_EXCEPTION;
  }
  return ((events & EPOLLIN) != 0 ? SOCKET_READABLE : 0) | ((events & EPOLLOUT) != 0 ? SOCKET_WRITABLE : 0) |
         ((events & EPOLLPRI) != 0 ? SOCKET_EXCEPTION : 0);
}

// The descriptor may have been closed and reopened without our knowledge, so our record of
// it may be stale.
bool watch(int epoll, int socket, epoll_event event) {
  return epoll_ctl(epoll, EPOLL_CTL_MOD, socket, &event) == 0 ||
         (errno == ENOENT && epoll_ctl(epoll, EPOLL_CTL_ADD, socket, &event) == 0);
}

}  // namespace

// Waits with microsecond precision if the kernel supports it. Old kernels lack the call, and
// some containers' filters refuse it with arbitrary errors.
int EpollScheduler::wait(std::span<epoll_event> events, std::chrono::microseconds limit) {
  auto const room = static_cast<int>(events.size());
  if (m_HasPwait2) {
    timespec const timeout{.tv_sec = 0, .tv_nsec = std::chrono::nanoseconds(limit).count()};
    int const count = epoll_pwait2(m_Epoll.get(), events.data(), room, &timeout, nullptr);
    if (count >= 0 || errno == EINTR) {
      return count;
    }
    m_HasPwait2 = false;
  }
  return epoll_wait(m_Epoll.get(), events.data(), room,
                    static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(limit).count()));
}

EpollScheduler* EpollScheduler::createNew(unsigned maxGranularity) {
  UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
  UniqueFd wakeUp(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  epoll_event event{.events = EPOLLIN, .data = {.u64 = wakeUpKey}};
  if (epoll.get() < 0 || wakeUp.get() < 0 || epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wakeUp.get(), &event) != 0) {
    return nullptr;
  }
  return new EpollScheduler(maxGranularity, std::move(epoll), std::move(wakeUp));
}

EpollScheduler::EpollScheduler(unsigned maxGranularity, UniqueFd epoll, UniqueFd wakeUp)
    : BasicTaskScheduler(maxGranularity), m_Epoll(std::move(epoll)), m_WakeUp(std::move(wakeUp)) {}

TaskToken EpollScheduler::scheduleDelayedTask(int64_t microseconds, TaskFunc* task, void* clientData) {
  return m_Timers.schedule(microseconds, task, clientData);
}

void EpollScheduler::unscheduleDelayedTask(TaskToken& task) {
  m_Timers.cancel(task);
  task = nullptr;
}

void EpollScheduler::request(LoopCall& call) {
  if (m_Calls.request(call)) {
    std::uint64_t const one = 1;
    // This can fail only if the counter is saturated, and then a wake-up is pending.
    (void)!write(m_WakeUp.get(), &one, sizeof one);
  }
}

void EpollScheduler::SingleStep(unsigned maxDelayTime) {
  auto const limit = std::chrono::microseconds(maxDelayTime > 0 ? std::min(maxDelayTime, fMaxSchedulerGranularity)
                                                                : fMaxSchedulerGranularity);
  std::array<epoll_event, 64> events;
  int const count = wait(events, m_Timers.untilNext(limit));
  for (int i = 0; i < count; ++i) {
    handle(events[static_cast<std::size_t>(i)].data.u64, events[static_cast<std::size_t>(i)].events);
  }
  m_Timers.runDue();
}

void EpollScheduler::handle(std::uint64_t key, std::uint32_t events) {
  if (key == wakeUpKey) {
    drainWakeUp();
    m_Calls.runAll();
    return;
  }
  // A handler that ran earlier in this pass may have closed the socket, and
  // another may have been opened under its number.
  auto const found = m_Handlers.find(static_cast<int>(key & 0xFFFFFFFF));
  if (found == m_Handlers.end() || found->second.version != key >> 32) {
    return;
  }
  Handler const handler = found->second;
  int const conditions = conditionsOf(events) & handler.conditions;
  if (conditions != 0) {
    contained([&] { handler.function(handler.clientData, conditions); });
  }
}

void EpollScheduler::drainWakeUp() {
  std::uint64_t count = 0;
  (void)!read(m_WakeUp.get(), &count, sizeof count);
}

void EpollScheduler::setBackgroundHandling(int socket, int conditions, BackgroundHandlerProc* handler,
                                           void* clientData) {
  if (socket < 0) {
    return;
  }
  if (conditions == 0 || handler == nullptr) {
    m_Handlers.erase(socket);
    epoll_ctl(m_Epoll.get(), EPOLL_CTL_DEL, socket, nullptr);
    return;
  }
  std::uint32_t const version = ++m_LastVersion;
  m_Handlers[socket] = Handler{conditions, handler, clientData, version};
  if (!watch(m_Epoll.get(), socket, {.events = eventsOf(conditions), .data = {.u64 = keyOf(socket, version)}})) {
    m_Handlers.erase(socket);
  }
}

void EpollScheduler::moveSocketHandling(int oldSocket, int newSocket) {
  auto const found = m_Handlers.find(oldSocket);
  if (found != m_Handlers.end() && newSocket >= 0) {
    Handler const handler = found->second;
    setBackgroundHandling(oldSocket, 0, nullptr, nullptr);
    setBackgroundHandling(newSocket, handler.conditions, handler.function, handler.clientData);
  }
}

}  // namespace kavo::impl
