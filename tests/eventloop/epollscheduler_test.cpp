#include "eventloop/epollscheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "eventloop/loophandles.h"
#include "eventloop/looptest.h"

using namespace kavo::impl;

namespace {

class EpollSchedulerTest : public LoopTest {
 protected:
  using Callback = std::function<void()>;

  static void call(void* function) { (*static_cast<Callback*>(function))(); }
  static void callForSocket(void* function, int) { (*static_cast<Callback*>(function))(); }

  void watch(int socket, Callback& callback) {
    scheduler().setBackgroundHandling(socket, SOCKET_READABLE, callForSocket, &callback);
  }
  void unwatch(int socket) { scheduler().disableBackgroundHandling(socket); }

  TaskScheduler& scheduler() { return *m_Scheduler; }
};

}  // namespace

TEST_F(EpollSchedulerTest, RunsTriggersFromManyThreadsWithoutALimit) {
  constexpr std::size_t triggers = 200;
  constexpr std::size_t firings = 500;
  std::vector<std::atomic<int>> runs(triggers);
  std::vector<std::unique_ptr<EventTrigger>> all;
  for (auto& count : runs) {
    all.push_back(std::make_unique<EventTrigger>(scheduler(), [&count] { ++count; }));
  }
  std::atomic<int> finished = 0;
  std::vector<std::jthread> threads;
  for (std::size_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (std::size_t i = 0; i < firings * triggers / 4; ++i) {
        all[(i * 4 + t) % triggers]->fire();
      }
      ++finished;
    });
  }
  runUntil([&] { return finished == 4; });
  passes(3);
  // Calls coalesce, but none is lost: every trigger that is fired now runs exactly once more.
  std::vector<int> const before(runs.begin(), runs.end());
  for (auto const& trigger : all) {
    trigger->fire();
    trigger->fire();
  }
  passes(3);
  for (std::size_t i = 0; i < triggers; ++i) {
    EXPECT_GT(before[i], 0);
    EXPECT_EQ(runs[i] - before[i], 1);
  }
}

// A trigger that an earlier one deletes, a trigger that deletes itself, and one created in a handler.
TEST_F(EpollSchedulerTest, ADeletedTriggerDoesNotRun) {
  std::string runs;
  auto const trigger = [&](char letter, Callback more) {
    return std::make_unique<EventTrigger>(scheduler(), [&runs, letter, more = std::move(more)] {
      runs += letter;
      more();
    });
  };
  std::unique_ptr<EventTrigger> last;
  std::unique_ptr<EventTrigger> deleted = trigger('d', [] {});
  std::unique_ptr<EventTrigger> first = trigger('f', [&] {
    deleted.reset();
    last = trigger('l', [] {});
    last->fire();
    first.reset();
    runs += '.';  // the handler's captures are still alive
  });
  first->fire();
  deleted->fire();
  runUntil([&] { return runs == "f.l"; });
  last->fire();
  last.reset();
  passes(3);
  EXPECT_EQ(runs, "f.l");
}

// Calls that are pending when the loop ends, and later calls, are told so.
TEST_F(EpollSchedulerTest, ACallIsAnsweredEvenAfterTheLoopHasEnded) {
  struct Call : LoopCall {
    void run(bool onLoop) override { answers += onLoop ? 'y' : 'n'; }
    std::string answers;
  } calls[2];
  m_Scheduler->request(calls[0]);
  m_Scheduler->closeCalls();
  m_Scheduler->request(calls[1]);
  m_Scheduler->request(calls[1]);
  passes(3);
  EXPECT_EQ(calls[0].answers + "," + calls[1].answers, "n,nn");
}

// Both sockets are ready at once. The handler that runs first closes the other socket and opens a new one
// with the same number, which must not get the old socket's event.
TEST_F(EpollSchedulerTest, ASocketClosedInAHandlerGetsNoMoreEvents) {
  std::unique_ptr<Pair> pairs[] = {std::make_unique<Pair>(), std::make_unique<Pair>()};
  std::unique_ptr<Pair> successor;
  int first = -1;
  int late = 0;
  Callback onLate = [&] { ++late; };
  Callback handlers[2];
  for (int const own : {0, 1}) {
    handlers[own] = [&, own] {
      if (first >= 0) {
        ++late;
        return;
      }
      first = own;
      unwatch(pairs[own]->near.get());
      int const number = pairs[1 - own]->near.get();
      unwatch(number);
      pairs[1 - own].reset();
      successor = std::make_unique<Pair>();
      ASSERT_TRUE(successor->near.get() == number || successor->far.get() == number);
      watch(number, onLate);
    };
    watch(pairs[own]->near.get(), handlers[own]);
    pairs[own]->send();
  }
  runUntil([&] { return first >= 0; });
  passes(3);
  EXPECT_EQ(late, 0);
}

TEST_F(EpollSchedulerTest, HandlesManySocketsAndMoves) {
  std::array<Pair, 100> pairs;
  std::array<Callback, 100> callbacks;
  std::array<int, 100> heard{};
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    callbacks[i] = [&, i] {
      char byte;
      heard[i] += static_cast<int>(read(pairs[i].near.get(), &byte, 1));
    };
    watch(pairs[i].near.get(), callbacks[i]);
  }
  for (int i = 0; i < 2000; ++i) {
    pairs[static_cast<std::size_t>(i) % pairs.size()].send();
  }
  runUntil([&] { return std::ranges::count(heard, 20) == 100; });

  Pair moved;
  scheduler().moveSocketHandling(pairs[0].near.get(), moved.near.get());
  pairs[0].send();
  passes(3);
  EXPECT_EQ(heard[0], 20);
  pairs[0].near = std::move(moved.near);  // the callback reads from this one
  moved.send();
  runUntil([&] { return heard[0] == 21; });
}

TEST_F(EpollSchedulerTest, RunsTimersInOrderExceptCancelledOnes) {
  std::vector<int> order;
  std::vector<std::unique_ptr<Callback>> callbacks;
  auto const schedule = [&](std::int64_t microseconds, int number) {
    callbacks.push_back(std::make_unique<Callback>([&order, number] { order.push_back(number); }));
    return scheduler().scheduleDelayedTask(microseconds, call, callbacks.back().get());
  };
  schedule(1000000, 4);  // so long that on any machine the next three are due before it
  schedule(0, 1);
  TaskToken cancelled = schedule(5000, 99);
  schedule(-5, 2);
  schedule(10000, 3);
  schedule(INT64_MAX, 98);
  scheduler().unscheduleDelayedTask(cancelled);
  EXPECT_EQ(cancelled, nullptr);
  scheduler().unscheduleDelayedTask(cancelled);
  TaskToken moved = schedule(1, 97);
  callbacks.push_back(std::make_unique<Callback>([&order] { order.push_back(5); }));
  scheduler().rescheduleDelayedTask(moved, 1000000, call, callbacks.back().get());
  runUntil([&] { return order.size() == 5; });
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
}

TEST_F(EpollSchedulerTest, AnEndlessTimerDoesNotStarveSockets) {
  int runs = 0;
  Callback again = [&] {
    ++runs;
    scheduler().scheduleDelayedTask(0, call, &again);
  };
  scheduler().scheduleDelayedTask(0, call, &again);
  Pair pair;
  int heard = 0;
  Callback onData = [&] { ++heard; };
  watch(pair.near.get(), onData);
  pair.send();
  runUntil([&] { return heard > 0; });
  EXPECT_LE(runs, 100);
}
