// Presentation times: they start at the wall clock when the process begins to stream, and
// then advance with the monotonic clock. Any thread.
#pragma once

#include <sys/time.h>

#include <chrono>
#include <cstdint>

namespace kavo::impl {

inline std::chrono::microseconds wallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return std::chrono::seconds(now.tv_sec) + std::chrono::microseconds(now.tv_usec);
}

// Setting the wall clock later does not change presentation times; sender reports carry the
// new time to receivers.
inline timeval presentationTime(std::chrono::steady_clock::time_point time) {
  using std::chrono::microseconds;
  static microseconds const offset =
      wallClock() - std::chrono::duration_cast<microseconds>(std::chrono::steady_clock::now().time_since_epoch());
  auto const at = offset + std::chrono::duration_cast<microseconds>(time.time_since_epoch());
  return {.tv_sec = at.count() / 1000000, .tv_usec = at.count() % 1000000};
}

}  // namespace kavo::impl
