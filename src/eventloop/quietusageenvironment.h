// live555's usage environment without its messages on standard error, which belongs to the
// host. Event-loop thread.
#pragma once

#include <BasicUsageEnvironment.hh>

namespace kavo::impl {

class QuietUsageEnvironment : public BasicUsageEnvironment {
 public:
  static QuietUsageEnvironment* createNew(TaskScheduler& scheduler) { return new QuietUsageEnvironment(scheduler); }

  UsageEnvironment& operator<<(char const*) override { return *this; }
  UsageEnvironment& operator<<(int) override { return *this; }
  UsageEnvironment& operator<<(unsigned) override { return *this; }
  UsageEnvironment& operator<<(double) override { return *this; }
  UsageEnvironment& operator<<(void*) override { return *this; }

 private:
  using BasicUsageEnvironment::BasicUsageEnvironment;
};

}  // namespace kavo::impl
