// What tests of the event loop share.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <functional>
#include <memory>

#include "base/uniquefd.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/eventlooprole.h"

// Both ends of a connection.
struct Pair {
  Pair() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, ends), 0);
    near = kavo::impl::UniqueFd(ends[0]);
    far = kavo::impl::UniqueFd(ends[1]);
  }
  void send() const { EXPECT_EQ(write(far.get(), "x", 1), 1); }

  kavo::impl::UniqueFd near;
  kavo::impl::UniqueFd far;
};

// A test whose thread is the event-loop thread.
class LoopTest : public ::testing::Test {
 protected:
  // Iterates the loop until the condition holds.
  void runUntil(std::function<bool()> const& condition) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
      ASSERT_LT(std::chrono::steady_clock::now(), end) << "it never happened";
      static_cast<BasicTaskScheduler0&>(*m_Scheduler).SingleStep(1000);
    }
  }
  void passes(int count) {
    for (int i = 0; i < count; ++i) {
      static_cast<BasicTaskScheduler0&>(*m_Scheduler).SingleStep(1);
    }
  }

  kavo::impl::EventLoopRole::Holder const m_Role{kavo::impl::eventLoopRole};
  std::unique_ptr<kavo::impl::EpollScheduler> const m_Scheduler{kavo::impl::EpollScheduler::createNew(10000)};
};
