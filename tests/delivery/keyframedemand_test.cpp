#include "delivery/keyframedemand.h"

#include <gtest/gtest.h>

using namespace kavo::impl;
using namespace std::chrono_literals;

namespace {

// A viewer that receives a hundred packets a second and sends ten reports a second.
struct Reporting {
  KeyFrameDemand demand;
  ReportBlock block;
  KeyFrameDemand::Clock::time_point now = KeyFrameDemand::Clock::now();
  int keyFrames = 0;

  void report(int lost) {
    now += 100ms;
    block.highestSequence += 10;
    block.packetsLost += lost;
    demand.reported({.block = block}, true);
  }
  bool getsKeyFrame() {
    bool const due = demand.take(now);
    if (due) {
      demand.keyFrameSent(static_cast<std::uint16_t>(block.highestSequence + 1), now);
      ++keyFrames;
    }
    return due;
  }
};

}  // namespace

TEST(KeyFrameDemand, EachLossGetsOneKeyFrameAtMostEveryHalfSecond) {
  Reporting viewer;
  viewer.report(0);
  EXPECT_FALSE(viewer.getsKeyFrame());
  viewer.report(1);
  EXPECT_TRUE(viewer.getsKeyFrame());
  viewer.report(0);
  EXPECT_FALSE(viewer.getsKeyFrame());
  viewer.report(1);
  EXPECT_FALSE(viewer.getsKeyFrame()) << "too soon";
  viewer.now += 400ms;
  EXPECT_TRUE(viewer.getsKeyFrame()) << "without another report";
  // A report that was sent before the key frame arrived.
  viewer.report(0);
  viewer.now += 1s;
  viewer.demand.keyFrameSent(static_cast<std::uint16_t>(viewer.block.highestSequence + 20), viewer.now);
  viewer.report(1);
  EXPECT_FALSE(viewer.getsKeyFrame());
  viewer.demand.reported({.block = {}, .wantsKeyFrame = true}, false);
  EXPECT_TRUE(viewer.getsKeyFrame());
}

TEST(KeyFrameDemand, AConstantlyLossyViewerGetsOneEveryTwoSeconds) {
  Reporting viewer;
  for (int i = 0; i < 300; ++i) {
    viewer.report(3);
    viewer.getsKeyFrame();
  }
  EXPECT_GE(viewer.keyFrames, 15);
  EXPECT_LE(viewer.keyFrames, 15 + 2) << "until it was known";
}

TEST(KeyFrameDemand, AConstantlyLossyViewerGetsNoneBesideRegularOnes) {
  Reporting viewer;
  for (int i = 0; i < 300; ++i) {
    viewer.report(3);
    if (i % 10 == 0) {
      viewer.demand.keyFrameSent(static_cast<std::uint16_t>(viewer.block.highestSequence - 5), viewer.now);
    }
    viewer.getsKeyFrame();
  }
  EXPECT_LE(viewer.keyFrames, 3) << "until it was known";
}
