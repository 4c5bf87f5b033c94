#include "delivery/pacer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "base/address.h"

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

constexpr int usualMbit = 100;
// Switches queue at least 64 kB for each port, and sockets 208 kB.
constexpr std::size_t usualBurst = 49152;
// Half of what a socket of 208 kB holds in packets of 1400 bytes, by the kernel's accounting.
constexpr std::size_t localBurst = 65536;
// An operator who sets a pace has small queues.
constexpr std::size_t smallBurst = 12288;
// UDP, IP and Ethernet headers, which also take up the link.
constexpr std::size_t headerSize = 46;

// Over the demand, so that frames are through a little before the next ones arrive.
constexpr double margin = 1.1;
// A single large frame does not raise the rate: it may take longer than one frame interval.
constexpr auto demandPeriod = 1s;

double bytesPerMicrosecond(int mbit) { return mbit / 8.0; }

std::size_t burstFor(std::optional<int> paceMbit, std::size_t usual) {
  return !paceMbit ? usual : *paceMbit == 0 ? SIZE_MAX : smallBurst;
}

double microseconds(Pacer::Clock::duration duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

double onLink(std::size_t bytes, std::size_t packets) { return static_cast<double>(bytes + packets * headerSize); }

}  // namespace

Pacer::Pacer(std::optional<int> paceMbit)
    : m_Rate(bytesPerMicrosecond(std::max(1, paceMbit.value_or(usualMbit)))),
      m_Burst(burstFor(paceMbit, usualBurst)),
      m_LocalBurst(burstFor(paceMbit, localBurst)) {}

std::shared_ptr<Pacer::Path> Pacer::pathTo(sockaddr_storage const& address) {
  if (isLoopback(address)) {
    return std::make_shared<Path>(address, m_Rate, m_LocalBurst);
  }
  std::erase_if(m_Paths, [](auto const& path) { return path.expired(); });
  for (auto const& known : m_Paths) {
    auto path = known.lock();
    if (path && isSameHost(path->address(), address)) {
      return path;
    }
  }
  auto path = std::make_shared<Path>(address, m_Rate, m_Burst);
  m_Paths.push_back(path);
  return path;
}

double Pacer::Path::rate() const { return std::max(m_UsualRate, margin * m_Demand); }

double Pacer::Path::burst() const { return static_cast<double>(m_UsualBurst) * rate() / m_UsualRate; }

double Pacer::Path::queued(Clock::time_point now) const {
  return std::max(0.0, m_Queued - rate() * microseconds(now - m_Updated));
}

std::size_t Pacer::Path::room(Clock::time_point now) const {
  double const queue = queued(now);
  return static_cast<std::size_t>(queue == 0 ? burst() : std::max(0.0, burst() * 2 / 3 - queue));
}

std::chrono::microseconds Pacer::Path::until(std::size_t bytes, Clock::time_point now) const {
  double const limit = burst() * 2 / 3;
  // Waiting for more than half would let the link idle when this thread wakes late.
  double const excess = queued(now) + std::min(static_cast<double>(bytes), limit / 2) - limit;
  return std::chrono::microseconds(static_cast<std::int64_t>(std::ceil(std::max(0.0, excess) / rate())));
}

void Pacer::Path::offer(std::size_t bytes, std::size_t packets, Clock::time_point now) {
  auto const since = now - m_OfferedSince;
  if (since >= demandPeriod) {
    double const queue = queued(now);  // at the old rate
    m_Demand = m_Offered / microseconds(since);
    m_Offered = 0;
    m_OfferedSince = now;
    m_Queued = queue;
    m_Updated = now;
  }
  m_Offered += onLink(bytes, packets);
}

void Pacer::Path::sent(std::size_t bytes, std::size_t packets, Clock::time_point now) {
  m_Queued = std::min(queued(now) + onLink(bytes, packets), 2 * burst());
  m_Updated = now;
}

}  // namespace kavo::impl
