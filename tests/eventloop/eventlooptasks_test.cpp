#include "eventloop/eventlooptasks.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/streamexception.h"
#include "session/streamenvironment.h"

using namespace kavo::impl;

TEST(RunOnLoop, RunsAtOnceWhileNoLoopRuns) {
  StreamEnvironment environment;
  auto const here = std::this_thread::get_id();
  EXPECT_EQ(environment.runOnLoop([] { return std::this_thread::get_id(); }), here);
}

class RunOnLoopServing : public ::testing::Test {
 protected:
  void SetUp() override {
    // Any free port will do; the range is tried until one is.
    for (unsigned port = 20000 + static_cast<unsigned>(getpid() % 20000);; ++port) {
      try {
        m_Environment.start(port);
        return;
      } catch (StreamException const&) {
        ASSERT_LT(port, 60000U);
      }
    }
  }

  StreamEnvironment m_Environment;
};

TEST_F(RunOnLoopServing, RunsOnTheLoopsThreadAndNestsInline) {
  auto const here = std::this_thread::get_id();
  auto const outer = [&] {
    EXPECT_TRUE(eventLoopRole.isHeld());
    auto const loop = std::this_thread::get_id();
    EXPECT_EQ(m_Environment.runOnLoop([] { return std::this_thread::get_id(); }), loop);
    return loop;
  };
  EXPECT_NE(m_Environment.runOnLoop(outer), here);
  EXPECT_FALSE(eventLoopRole.isHeld());
}

TEST_F(RunOnLoopServing, BringsResultsAndExceptionsBack) {
  EXPECT_EQ(m_Environment.runOnLoop([] { return 42; }), 42);
  EXPECT_THROW(m_Environment.runOnLoop([] { throw StreamException("from the loop", ErrorResource); }), StreamException);
}
