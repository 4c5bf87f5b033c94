// The queue of calls that other threads request from the event-loop thread.
#pragma once

#include <atomic>

#include "base/noncopyable.h"

namespace kavo::impl {

class LoopCalls;

// One call. Its owner keeps it alive, at the same address, until it has run or was withdrawn.
class LoopCall : NonCopyable {
 protected:
  LoopCall() = default;
  virtual ~LoopCall() = default;

  // Runs on the event-loop thread; or, with false, on any thread if the loop no longer runs.
  virtual void run(bool onLoop) = 0;

 private:
  friend class LoopCalls;

  std::atomic<bool> m_IsPending = false;
  LoopCall* m_Next = nullptr;
};

// Lock-free: threads push calls to the front of a list, and the event-loop thread takes the
// whole list at once.
class LoopCalls : NonCopyable {
 public:
  // Any thread. Requests coalesce until the call runs. Returns whether the loop must be woken.
  bool request(LoopCall& call);

  // The rest: event-loop thread, or while no loop runs. Runs the requested calls in order. A
  // call may request others and withdraw any; an exception ends only that call.
  void runAll();
  // Cancels the call if it is pending.
  void withdraw(LoopCall& call);
  // Runs all calls, also those requested later, with false.
  void close();

 private:
  void takeRequested();
  void runTaken(bool onLoop);

  std::atomic<LoopCall*> m_Requested = nullptr;  // the newest first
  // Event-loop thread.
  LoopCall* m_Taken = nullptr;  // the oldest first
  LoopCall* m_Empty = nullptr;  // the value of m_Requested if nothing is requested
};

}  // namespace kavo::impl
