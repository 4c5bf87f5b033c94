// How fast UDP leaves for each host: a token bucket for each address, which all streams
// share. Event-loop thread.
#pragma once

#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

namespace kavo::impl {

class Pacer {
 public:
  using Clock = std::chrono::steady_clock;

  // What one host may be sent.
  class Path {
   public:
    Path(sockaddr_storage const& address, double rate, std::size_t burst)
        : m_Address(address), m_MaxRate(rate), m_Rate(rate), m_Burst(burst) {}

    sockaddr_storage const& address() const { return m_Address; }
    // Whether nothing is on the way there.
    bool isIdle(Clock::time_point now) const { return backlog(now) == 0; }
    // Whether a frame of this size leaves at once, since ordinary queues take it.
    bool takesAtOnce(std::size_t bytes) const { return bytes <= m_Burst; }
    // Bytes that may leave now, and how long until so many may.
    std::size_t room(Clock::time_point now) const;
    std::chrono::microseconds until(std::size_t bytes, Clock::time_point now) const;
    // The rate, in bytes per microsecond, that a frame needs to leave in time: before the
    // next one, and within half of that time where it alone would take longer.
    double needOf(std::size_t bytes, std::chrono::microseconds frameInterval) const;
    // What the frames that leave there need together is the path's rate where that is
    // more. A frame that has left gives it back.
    void addNeed(double rate, Clock::time_point now);
    void noteSent(std::size_t bytes, std::size_t packets, Clock::time_point now);
    // A viewer there has reported. Where most of them lose packets, the rate falls, though
    // not below what the streams need; where none does, it rises again.
    void noteReport(bool loss, Clock::time_point now);

   private:
    double backlog(Clock::time_point now) const;
    std::size_t burst() const;
    std::size_t steadyBacklog() const { return burst() * 2 / 3; }
    double currentRate() const { return m_Rate > m_Needed ? m_Rate : m_Needed; }

    sockaddr_storage const m_Address;
    double const m_MaxRate;
    double m_Rate;
    std::size_t const m_Burst;
    double m_Needed = 0;
    double m_Backlog = 0;  // bytes that a link of this rate still holds, at m_Updated
    Clock::time_point m_Updated{};
    // Since m_WindowBegin.
    Clock::time_point m_WindowBegin{};
    double m_BytesInWindow = 0;
    int m_Reports = 0;
    int m_LossReports = 0;
  };

  // paceMbit is the operator's: Mbit/s, 0 for no pacing; without it 100.
  explicit Pacer(std::optional<int> paceMbit);

  bool isOff() const { return m_Rate == 0; }
  // The one of the host, whatever the port. On this machine there is no link to share, and
  // each viewer has its own: the bottleneck is its socket.
  std::shared_ptr<Path> pathTo(sockaddr_storage const& address);

 private:
  double const m_Rate;  // bytes per microsecond
  std::size_t const m_Burst;
  std::size_t const m_LocalBurst;
  std::vector<std::weak_ptr<Path>> m_Paths;
};

}  // namespace kavo::impl
