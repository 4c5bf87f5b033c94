#include "rtsp/keyframerequest.h"

#include <gtest/gtest.h>

using kavo::KeyFrameRequest;
using namespace std::chrono_literals;

TEST(KeyFrameRequest, IsMergedAndKeptButNotLost) {
  KeyFrameRequest request;
  auto const start = KeyFrameRequest::Clock::now();
  EXPECT_FALSE(request.take(start));
  request.ask();
  request.ask();
  EXPECT_TRUE(request.take(start));
  EXPECT_FALSE(request.take(start + 1s));
  request.ask();
  EXPECT_TRUE(request.take(start + 2s));
  request.ask();
  EXPECT_FALSE(request.take(start + 2s + 50ms));
  EXPECT_FALSE(request.take(start + 2s + 499ms));
  EXPECT_TRUE(request.take(start + 2s + 500ms));
  request.ask();
  request.withdraw();
  EXPECT_FALSE(request.take(start + 5s));
}
