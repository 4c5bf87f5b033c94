#include "delivery/udpfanout.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "base/address.h"
#include "delivery/udptransport.h"
#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

// The fewest bytes for each viewer that are worth a system call.
constexpr std::size_t smallestBurst = 16384;
constexpr std::chrono::microseconds leastWait{100};

}  // namespace

void PacedFrame::advance(std::size_t packets, std::size_t toRecipients) {
  recipient += toRecipients;
  if (recipient >= recipients.size()) {
    recipient = 0;
    next += packets;
  }
}

bool PacedFrame::remove(UdpTransport const& to) {
  auto const place = std::ranges::find(recipients, &to);
  if (place == recipients.end()) {
    return false;
  }
  recipient -= place - recipients.begin() < static_cast<std::ptrdiff_t>(recipient) ? 1 : 0;
  recipients.erase(place);
  if (recipient > 0) {
    advance(1, 0);
  }
  return true;
}

void PacedFrame::clear() {
  frame.reset();
  recipients.clear();
  next = recipient = 0;
}

bool UdpFanout::Burst::operator<(Burst const& other) const {
  return std::tie(frame, first, last, family) < std::tie(other.frame, other.first, other.last, other.family);
}

UdpFanout::UdpFanout(TaskScheduler& scheduler, std::shared_ptr<Pacer> pacer,
                     std::shared_ptr<DescriptorBudget> descriptors, std::string address, Owner& owner)
    : m_Scheduler(scheduler),
      m_Pacer(std::move(pacer)),
      m_Descriptors(std::move(descriptors)),
      m_Address(std::move(address)),
      m_Owner(owner),
      m_NextBurst(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) {
        if (!contained([this]() KAVO_REQUIRES(eventLoopRole) { flush(); })) {
          m_Owner.failed();
        }
      }) {}

bool UdpFanout::open(int family, std::function<void(int)> onReport) {
  auto& place = m_Families[indexOf(family)];
  if (!place) {
    auto descriptors = m_Descriptors->take(2);
    auto ports = descriptors ? UdpPorts::open(family, m_Address) : std::nullopt;
    if (!ports) {
      return false;
    }
    int const socket = ports->rtcpSocket();
    auto const receive = [socket, function = std::move(onReport)](int) { function(socket); };
    place.reset(new Family{std::move(*descriptors), std::move(*ports), {m_Scheduler, socket, receive}});
    place->rtcp.start(SOCKET_READABLE);
  }
  return true;
}

void UdpFanout::close() {
  m_Families[0].reset();
  m_Families[1].reset();
}

std::shared_ptr<UdpPath> UdpFanout::pathTo(sockaddr_storage const& address) {
  auto pace = m_Pacer->pathTo(address);
  std::erase_if(m_Paths, [](auto const& path) { return path.expired(); });
  for (auto const& known : m_Paths) {
    auto path = known.lock();
    if (path && path->pace == pace) {
      return path;
    }
  }
  auto path = std::make_shared<UdpPath>();
  path->pace = std::move(pace);
  m_Paths.push_back(path);
  return path;
}

Transport::Outcome UdpFanout::add(UdpTransport& to, FramePtr const& frame, Clock::time_point now) {
  UdpPath& path = to.path();
  path.pace->offer(frame->packets.bytes(), frame->packets.count(), now);
  if (path.current.frame == nullptr) {
    m_Busy.push_back(&path);  // first: it may throw
    path.current.frame = frame;
    path.due = now;
  }
  if (path.current.frame == frame && path.current.next == 0) {
    path.current.recipients.push_back(&to);
    return {};
  }
  if (path.waiting.frame != frame) {
    path.hasReplaced = path.waiting.frame != nullptr;
    if (path.hasReplaced && !frame->isKeyFrame) {
      return {.accepted = false};
    }
    path.waiting.clear();
    path.waiting.frame = frame;
  }
  path.waiting.recipients.push_back(&to);
  return {.accepted = true, .dropped = path.hasReplaced ? 1U : 0U};
}

// A large frame sent at once would overflow the buffers along the path. If there is no room
// for one packet to each of many viewers, they get it one after another.
UdpFanout::Burst UdpFanout::burstOn(UdpPath& path, Clock::time_point now) {
  PacedFrame const& current = path.current;
  FramePackets const& packets = current.frame->packets;
  int const family = current.recipients.front()->address().ss_family;
  Burst burst{&path, current.frame.get(), family, current.next, current.next};
  std::size_t const room =
      path.pace->takesAtOnce(packets.bytes()) ? packets.bytes() * current.recipients.size() : path.pace->room(now);
  std::size_t const least = path.pace->isIdle(now) ? 1 : 0;
  burst.recipients =
      std::min(std::max(room / packets.size(current.next), least), current.recipients.size() - current.recipient);
  while (burst.recipients > 0 && burst.last < packets.count() &&
         (burst.last == burst.first || (burst.recipients == current.recipients.size() &&
                                        (burst.bytes + packets.size(burst.last)) * burst.recipients <= room))) {
    burst.bytes += packets.size(burst.last++);
  }
  return burst;
}

void UdpFanout::flush() {
  auto const now = Clock::now();
  m_Bursts.clear();
  for (UdpPath* const path : m_Busy) {
    if (path->due <= now) {
      m_Bursts.push_back(burstOn(*path, now));
    }
  }
  if (!std::is_sorted(m_Bursts.begin(), m_Bursts.end())) {  // usually sorted: all paths get the same frame
    std::sort(m_Bursts.begin(), m_Bursts.end());
  }
  for (std::span<Burst const> rest = m_Bursts; !rest.empty();) {
    auto const other = std::ranges::find_if_not(rest, [&](auto const& burst) { return burst.leavesWith(rest[0]); });
    auto const together = rest.first(static_cast<std::size_t>(other - rest.begin()));
    rest = rest.subspan(together.size());
    send(together);
  }
  std::erase_if(m_Busy, [](UdpPath const* path) { return path->current.frame == nullptr; });
  schedule();
  endExceeding();
}

void UdpFanout::send(std::span<Burst const> bursts) {
  Burst const& all = bursts[0];
  if (all.last > all.first) {
    m_Destinations.clear();
    for (Burst const& burst : bursts) {
      PacedFrame const& current = burst.path->current;
      for (UdpTransport* const recipient : std::span(current.recipients).subspan(current.recipient, burst.recipients)) {
        m_Destinations.push_back(&recipient->destination());
      }
    }
    m_Sender.send(ports(all.family).rtpSocket(), all.frame->packets, all.first, all.last, m_Destinations);
  }
  auto const now = Clock::now();  // after sending: this thread may have been suspended before
  for (Burst const& burst : bursts) {
    std::ranges::copy_if(burst.path->current.recipients, std::back_inserter(m_Exceeding),
                         [](UdpTransport* recipient) { return recipient->destination().exceedsMtu; });
    advance(burst, now);
  }
}

void UdpFanout::advance(Burst const& burst, Clock::time_point now) {
  UdpPath& path = *burst.path;
  PacedFrame& current = path.current;
  std::size_t const packetCount = burst.last - burst.first;
  path.pace->sent(burst.bytes * burst.recipients, packetCount * burst.recipients, now);
  current.advance(packetCount, burst.recipients);
  if (current.isDone()) {
    current.clear();
    std::swap(current, path.waiting);
    path.due = now;
  } else {
    FramePackets const& packets = burst.frame->packets;
    std::size_t const bytes = packets.bytes() * (packets.count() - current.next) / packets.count();
    path.due = now + path.pace->until(std::min(smallestBurst, bytes) * current.recipients.size(), now);
  }
}

// Reported last, because the owner may remove the transports.
void UdpFanout::endExceeding() {
  for (UdpTransport* const transport : std::exchange(m_Exceeding, {})) {
    if (std::exchange(transport->destination().exceedsMtu, false)) {
      cancel(*transport);
      m_Owner.exceedsMtu(*transport);
    }
  }
}

void UdpFanout::schedule() {
  auto const first = std::ranges::min_element(m_Busy, {}, [](UdpPath const* path) { return path->due; });
  if (first == m_Busy.end()) {
    m_NextBurst.stop();
    return;
  }
  auto const wait = std::chrono::ceil<std::chrono::microseconds>((*first)->due - Clock::now());
  m_NextBurst.start(std::max(wait, leastWait));
}

void UdpFanout::cancel(UdpTransport& to) {
  UdpPath& path = to.path();
  std::erase(m_Exceeding, &to);
  for (PacedFrame* const frame : {&path.waiting, &path.current}) {
    if (frame->remove(to) && frame->isDone()) {
      frame->clear();
    }
  }
  if (path.current.frame == nullptr) {
    std::swap(path.current, path.waiting);
    if (path.current.frame == nullptr) {
      std::erase(m_Busy, &path);
    }
  }
}

void UdpFanout::cancelAll() {
  for (UdpPath* const path : std::exchange(m_Busy, {})) {
    path->current.clear();
    path->waiting.clear();
  }
  m_NextBurst.stop();
}

}  // namespace kavo::impl
