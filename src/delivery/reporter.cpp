#include "delivery/reporter.h"

#include <linux/errqueue.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/address.h"
#include "delivery/udptransport.h"
#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

// How many datagrams are read before other sockets are served.
constexpr int datagramsInARow = 64;
constexpr std::size_t maxDatagram = 1500;
// A viewer that has not reported for this long may report from another port of its address.
constexpr std::chrono::seconds reportPortTimeout{10};

// All viewers probed within this time get the same report: few sent reports are remembered for
// the answers that refer to them.
constexpr std::chrono::milliseconds probeInterval{500};
// For the same reason, a report to a viewer that joins within this time of another report is not remembered.
constexpr std::chrono::milliseconds rememberInterval{100};

std::uint32_t middleOf(std::uint64_t ntpTime) { return static_cast<std::uint32_t>(ntpTime >> 16); }

std::string hostName() {
  char name[100] = {};
  gethostname(name, sizeof name - 1);
  return name;
}

}  // namespace

Reporter::Reporter(TaskScheduler& scheduler, Stream& stream, ViewerList const& viewers)
    : m_Stream(stream),
      m_Viewers(viewers),
      m_Next(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { sendToAll(); }),
      m_Cname(hostName()) {}

void Reporter::start(Viewer& viewer) {
  SentReport const& newest = m_Sent[(m_NextSent - 1) % m_Sent.size()];
  viewer.transport().sendReport(makeReport(Clock::now() - newest.time > rememberInterval));
  if (!m_Next.isPending()) {
    m_Next.start(interval);
  }
}

void Reporter::sendToAll() {
  if (std::ranges::none_of(m_Viewers, [](auto const& viewer) { return viewer->isActive(); })) {
    return;
  }
  m_Next.start(interval);  // first: a report may fail
  auto const report = makeReport(true);
  for (auto const& viewer : m_Viewers) {
    if (viewer->isActive()) {
      viewer->transport().sendReport(report);
    }
  }
}

void Reporter::sendBye(Viewer& viewer) noexcept {
  if (viewer.state() != Viewer::State::SetUp) {
    contained([&]() KAVO_REQUIRES(eventLoopRole) {
      viewer.transport().sendReport(makeSenderReport(m_Stream.senderInfo(), m_Cname, true));
    });
  }
}

void Reporter::probe(Viewer& viewer) {
  if (Clock::now() - m_ProbeMade > probeInterval) {
    m_Probe = makeReport(true);
    m_ProbeMade = Clock::now();
  }
  viewer.transport().sendReport(m_Probe);
}

std::vector<std::uint8_t> Reporter::makeReport(bool isRemembered) {
  SenderInfo const info = m_Stream.senderInfo();
  if (isRemembered) {
    m_Sent[m_NextSent++ % m_Sent.size()] = {middleOf(info.ntpTime), Clock::now()};
  }
  return makeSenderReport(info, m_Cname, false);
}

void Reporter::handle(Viewer& viewer, std::span<std::uint8_t const> packet) {
  auto const now = Clock::now();
  if (auto const report = readReceiverReport(packet, m_Stream.senderInfo().ssrc)) {
    auto const roundTrip = report->block ? roundTripOf(*report->block, now) : std::nullopt;
    if (viewer.reported(*report, roundTrip, now)) {
      m_Stream.wantKeyFrame(true);
    }
  }
}

// Datagrams that are not a viewer's report cost only the time to read them.
void Reporter::receive(int socket) {
  receiveErrors(socket);
  std::array<std::uint8_t, maxDatagram> buffer;
  auto const now = Clock::now();
  for (int i = 0; i < datagramsInARow; ++i) {
    sockaddr_storage from{};
    socklen_t fromSize = sizeof from;
    ssize_t const size =
        recvfrom(socket, buffer.data(), buffer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &fromSize);
    if (size < 0) {
      return;
    }
    if (Viewer* const viewer = reporterAt(from, now)) {
      handle(*viewer, std::span(buffer).first(static_cast<std::size_t>(size)));
    }
  }
}

// Reads ECONNREFUSED errors for sent reports. Each error carries the destination address.
void Reporter::receiveErrors(int socket) {
  for (int i = 0; i < datagramsInARow; ++i) {
    sockaddr_storage to{};
    alignas(cmsghdr) char control[512];
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (recvmsg(socket, &message, MSG_ERRQUEUE | MSG_DONTWAIT) < 0) {
      return;
    }
    for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr; header = CMSG_NXTHDR(&message, header)) {
      auto const* const error = reinterpret_cast<sock_extended_err const*>(CMSG_DATA(header));
      if (error->ee_errno != ECONNREFUSED) {
        continue;
      }
      for (auto const& viewer : m_Viewers) {
        if (UdpTransport const* const udp = viewer->transport().udp(); udp != nullptr && udp->reportsTo(to)) {
          viewer->probeRefused();
        }
      }
    }
  }
}

// The viewer that reports from this address. Behind NAT the source port may differ from
// the announced one; it is then assigned to the viewer of that address that has been
// silent longest.
Viewer* Reporter::reporterAt(sockaddr_storage const& from, Clock::time_point now) {
  Viewer* found = nullptr;
  Viewer* silent = nullptr;
  for (auto const& viewer : m_Viewers) {
    UdpTransport const* const udp = viewer->transport().udp();
    if (udp == nullptr || !udp->reportsFrom(from)) {
      continue;
    }
    if (udp->reportsFromPort(portOf(from))) {
      found = found == nullptr || viewer->isActive() ? viewer.get() : found;  // an active viewer owns its ports
    } else if (now - viewer->lastReport() > reportPortTimeout &&
               (silent == nullptr || viewer->lastReport() < silent->lastReport())) {
      silent = viewer.get();
    }
  }
  if (found == nullptr && silent != nullptr) {
    silent->transport().udp()->learnReportPort(portOf(from));
    found = silent;
  }
  return found;
}

// Uses the monotonic time at which the report was sent, so that changes of the wall clock do not matter.
std::optional<std::chrono::microseconds> Reporter::roundTripOf(ReportBlock const& block, Clock::time_point now) const {
  auto const sent = std::ranges::find(m_Sent, block.lastSenderReport, &SentReport::ntpMiddle);
  if (block.lastSenderReport == 0 || sent == m_Sent.end()) {
    return std::nullopt;
  }
  auto const held = std::chrono::microseconds(std::uint64_t{block.sinceSenderReport} * 1000000 / 65536);
  auto const since = std::chrono::duration_cast<std::chrono::microseconds>(now - sent->time);
  return std::max(since - held, std::chrono::microseconds::zero());
}

}  // namespace kavo::impl
