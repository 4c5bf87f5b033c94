// The queue of calls that other threads ask the event-loop thread for.
#pragma once

#include <atomic>

#include "base/noncopyable.h"

namespace kavo::impl {

class LoopCalls;

// One call; its owner keeps it where it is until it has run or was withdrawn.
class LoopCall : NonCopyable {
 protected:
  LoopCall() = default;
  virtual ~LoopCall() = default;

  // On the event-loop thread; or with false, on any, when the loop does not run any more.
  virtual void run(bool onLoop) = 0;

 private:
  friend class LoopCalls;

  std::atomic<bool> m_IsPending = false;
  LoopCall* m_Next = nullptr;
};

// Without a lock: threads push calls in front of a list, and the event-loop thread takes
// all of it at once.
class LoopCalls : NonCopyable {
 public:
  // Any thread. Requests coalesce until the call runs. True if the loop must be woken.
  bool request(LoopCall& call);

  // Event-loop thread, or while no loop runs. Runs what was requested, in that order. A call
  // may request others and withdraw any; an exception ends the call alone.
  void runAll();
  // The call does not run.
  void withdraw(LoopCall& call);
  // What was requested, and what will be, runs off the loop.
  void close();

 private:
  void takeRequested();
  void runTaken(bool onLoop);

  std::atomic<LoopCall*> m_Requested = nullptr;  // the newest first
  // Event-loop thread.
  LoopCall* m_Taken = nullptr;  // the oldest first
  LoopCall* m_Empty = nullptr;  // what m_Requested is when nothing is requested
};

}  // namespace kavo::impl
