#include "delivery/tcppath.h"

#include <linux/sockios.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>

namespace kavo::impl {

namespace {

using namespace std::chrono_literals;

// A few packets do no harm on any path and are not worth another system call.
constexpr int fewBytes = 16384;
constexpr std::chrono::microseconds queueing = 80ms;
constexpr std::chrono::microseconds shortestWait = 2ms;
constexpr std::chrono::microseconds longestWait = 100ms;

}  // namespace

std::chrono::microseconds untilPathTakesMore(int socket) {
  int unacknowledged = 0;
  if (ioctl(socket, SIOCOUTQ, &unacknowledged) != 0 || unacknowledged <= fewBytes) {
    return 0us;
  }
  tcp_info info{};
  socklen_t size = sizeof info;
  bool const known = getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 &&
                     size >= offsetof(tcp_info, tcpi_delivery_rate) + sizeof info.tcpi_delivery_rate;
  if (!known || info.tcpi_delivery_rate == 0) {
    return 0us;
  }
  double const rate = static_cast<double>(info.tcpi_delivery_rate) / 1e6;  // bytes per microsecond
  double const takes = rate * static_cast<double>(info.tcpi_min_rtt + queueing.count());
  double const excess = unacknowledged - takes;
  return excess <= 0 ? 0us
                     : std::clamp(std::chrono::microseconds(static_cast<std::int64_t>(excess / rate)), shortestWait,
                                  longestWait);
}

}  // namespace kavo::impl
