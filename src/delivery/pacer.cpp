#include "delivery/pacer.h"

#include <algorithm>
#include <cmath>

#include "delivery/address.h"

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

constexpr int usualMbit = 100;
// Switches queue 64 kB and more for a port, and sockets 208 kB.
constexpr std::size_t usualBurst = 49152;
// Half of what a socket of 208 kB takes in packets of 1400 bytes, as the kernel counts them.
constexpr std::size_t localBurst = 65536;
// Where the operator names a pace, queues are small.
constexpr std::size_t smallBurst = 12288;
// UDP, IP and Ethernet headers, which a link carries too.
constexpr std::size_t headers = 46;

// Frames of several streams are to be through a little before the next ones come.
constexpr double marginOfAll = 1.1;

constexpr auto window = 5s;
// A path never gets less than the streams' own rate with some room.
constexpr double leastShare = 1.2;
constexpr double fall = 0.7;
constexpr double rise = 1.15;

double bytesPerMicrosecond(int mbit) { return mbit / 8.0; }

double microseconds(Pacer::Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

}  // namespace

Pacer::Pacer(std::optional<int> paceMbit)
    : m_Rate(bytesPerMicrosecond(paceMbit.value_or(usualMbit))),
      m_Burst(paceMbit ? smallBurst : usualBurst),
      m_LocalBurst(paceMbit ? smallBurst : localBurst) {}

std::shared_ptr<Pacer::Path> Pacer::pathTo(sockaddr_storage const& address) {
  if (isLoopback(address)) {
    return std::make_shared<Path>(address, m_Rate, m_LocalBurst);
  }
  std::erase_if(m_Paths, [](auto const& path) { return path.expired(); });
  for (auto const& known : m_Paths) {
    auto const path = known.lock();
    if (path && isSameHost(path->address(), address)) {
      return path;
    }
  }
  auto path = std::make_shared<Path>(address, m_Rate, m_Burst);
  m_Paths.push_back(path);
  return path;
}

double Pacer::Path::backlog(Clock::time_point now) const {
  return std::max(0.0, m_Backlog - microseconds(now - m_Updated) * currentRate());
}

// A link that carries more than the usual rate, as the frames demand, queues as much more.
std::size_t Pacer::Path::burst() const {
  return static_cast<std::size_t>(static_cast<double>(m_Burst) * std::max(1.0, currentRate() / m_MaxRate));
}

// A queue that is empty takes a whole burst; one that drains is kept shorter, since
// nothing tells how late it began.
std::size_t Pacer::Path::room(Clock::time_point now) const {
  auto const held = static_cast<std::size_t>(std::ceil(backlog(now)));
  std::size_t const limit = held == 0 ? burst() : steadyBacklog();
  return held < limit ? limit - held : 0;
}

std::chrono::microseconds Pacer::Path::until(std::size_t bytes, Clock::time_point now) const {
  auto const wanted = static_cast<double>(std::min(bytes, steadyBacklog()));
  double const excess = backlog(now) + wanted - static_cast<double>(steadyBacklog());
  return std::chrono::microseconds(static_cast<std::int64_t>(std::ceil(std::max(0.0, excess) / currentRate())));
}

double Pacer::Path::needOf(std::size_t bytes, std::chrono::microseconds frameInterval) const {
  double const all = static_cast<double>(bytes) / static_cast<double>(frameInterval.count());
  return 2 * all > m_Rate ? 2 * all : all * marginOfAll;
}

void Pacer::Path::addNeed(double rate, Clock::time_point now) {
  m_Backlog = backlog(now);  // at the rate until now
  m_Updated = now;
  m_Needed += rate;
}

void Pacer::Path::noteSent(std::size_t bytes, std::size_t packets, Clock::time_point now) {
  double const onLink = static_cast<double>(bytes + packets * headers);
  m_Backlog = backlog(now) + onLink;
  m_Updated = now;
  m_BytesInWindow += onLink;
}

void Pacer::Path::noteReport(bool loss, Clock::time_point now) {
  ++m_Reports;
  m_LossReports += loss ? 1 : 0;
  auto const since = now - m_WindowBegin;
  if (since < window) {
    return;
  }
  bool const known = m_WindowBegin != Clock::time_point{};
  if (known && 2 * m_LossReports > m_Reports) {
    double const needed = m_BytesInWindow / microseconds(since) * leastShare;
    m_Rate = std::min(m_MaxRate, std::max(m_Rate * fall, needed));
  } else if (known && m_LossReports == 0) {
    m_Rate = std::min(m_MaxRate, m_Rate * rise);
  }
  m_WindowBegin = now;
  m_BytesInWindow = 0;
  m_Reports = m_LossReports = 0;
}

}  // namespace kavo::impl
