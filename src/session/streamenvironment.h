// The live555 run-time of the library: scheduler, usage environment, RTSP server,
// and the event-loop thread that drives them.
#pragma once

#include <BasicUsageEnvironment.hh>
#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>

#include "base/streamexception.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/eventlooprole.h"
#include "eventloop/memoryreserve.h"
#include "operate/policy.h"
#include "rtsp/livedemandsession.h"
#include "server/rtspserver.h"
#include "server/statusserver.h"

namespace kavo::impl {

// Host threads, one at a time (under the session manager's lock); run() is the event-loop
// thread. start() creates everything and stop() destroys it, so no failure outlives the
// server.
class StreamEnvironment : NonCopyable {
 public:
  StreamEnvironment() = default;
  ~StreamEnvironment();

  // Starts the RTSP server on the port and the event loop, with the policy file that the
  // environment names, if any. Throws.
  void start(unsigned int port);
  // Stops both. Does nothing if not started.
  void stop();
  bool isStarted() const { return m_RTSPServer != nullptr; }

  // Runs the function on the event-loop thread, waits for it, and returns its result or
  // rethrows its exception. Calls it directly if no loop runs, or on the event-loop thread
  // itself. Host threads call live555 only through this. The event loop never waits for
  // a host thread, so the caller may hold locks that the function does not take.
  template <class Function>
  std::invoke_result_t<Function> runOnLoop(Function function) const;

  // Throws "RTSP server has failed" after the loop has failed, until stop().
  void requireHealth() const {
    if (m_Failed) {
      throw StreamException("RTSP server has failed", ErrorResource);
    }
  }

  // The server's, while started.
  Policy const& policy() const { return *m_Policy; }
  DeliveryContext const& delivery() const { return *m_Delivery; }

  unsigned int port() const { return m_Port; }

  // Valid while started; otherwise GetRTSPServer() throws "RTSP server is not initialized".
  // It also throws what requireHealth() throws.
  UsageEnvironment& GetUsageEnvironment() const { return *m_UsageEnvironment; }
  TaskScheduler* GetTaskScheduler() const { return m_TaskScheduler.get(); }
  RtspServer* GetRTSPServer() const;

 private:
  struct Reclaim {
    void operator()(UsageEnvironment* environment) const { environment->reclaim(); }
  };

  void makeServer(unsigned int port, std::string const& policyFile);
  void release();
  void startThread();
  void run();

  unsigned int m_Port = 0;
  std::shared_ptr<Policy const> m_Policy;
  std::unique_ptr<DeliveryContext const> m_Delivery;
  std::unique_ptr<MemoryReserve> m_Reserve;
  // In this order, so that the environment is reclaimed after the scheduler is deleted.
  std::unique_ptr<UsageEnvironment, Reclaim> m_UsageEnvironment;
  std::unique_ptr<EpollScheduler> m_TaskScheduler;
  RtspServer* m_RTSPServer = nullptr;  // closed with Medium::close
  std::unique_ptr<StatusServer> m_StatusServer;
  std::thread m_Thread;
  char volatile m_WatchVariable = 0;  // the event loop returns when it is not 0
  std::atomic<bool> m_Failed = false;
};

template <class Function>
std::invoke_result_t<Function> StreamEnvironment::runOnLoop(Function function) const {
  if (!m_Thread.joinable() || eventLoopRole.isHeld()) {
    EventLoopRole::Holder const role(eventLoopRole);
    return function();
  }
  using Result = std::invoke_result_t<Function>;
  class Call : public LoopCall {
   public:
    explicit Call(Function& function)
        : m_Task([this, &function] {
            if (!m_OnLoop) {
              throw StreamException("RTSP server has failed", ErrorResource);
            }
            return function();
          }) {}
    std::future<Result> result() { return m_Task.get_future(); }

   private:
    void run(bool onLoop) override {
      m_OnLoop = onLoop;
      m_Task();
    }

    bool m_OnLoop = false;
    std::packaged_task<Result()> m_Task;
  };
  Call call(function);
  auto result = call.result();
  m_TaskScheduler->request(call);
  return result.get();
}

}  // namespace kavo::impl
