// The RTCP part of Viewers: reports that are sent, and those that arrive.
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "delivery/address.h"
#include "delivery/viewers.h"
#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

// Datagrams that are read before other sockets get their turn.
constexpr int datagramsInARow = 64;
constexpr std::size_t maxDatagram = 1500;
// Reports of one viewer that come faster are dropped.
constexpr std::chrono::milliseconds shortestReportInterval{50};
// A viewer that has not reported for this time may do so from another port of its host.
constexpr std::chrono::seconds reportPortTimeout{10};

// In 1/256: less is the ordinary noise of wireless links.
constexpr std::uint8_t noticeableLoss = 3;

std::uint32_t middleOf(std::uint64_t ntpTime) { return static_cast<std::uint32_t>(ntpTime >> 16); }

}  // namespace

void Viewer::sayGoodbye() noexcept {
  if (m_State != State::SetUp) {
    contained([this]() KAVO_REQUIRES(eventLoopRole) { m_Table.sendReport(*this, m_Table.makeReport(true)); });
  }
}

bool Viewer::isUnreachable() {
  if (!isOverUdp()) {
    return false;
  }
  if (m_Probe.get() < 0) {
    UniqueFd probe(socket(m_RtcpAddress.ss_family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (probe.get() < 0 ||
        connect(probe.get(), reinterpret_cast<sockaddr const*>(&m_RtcpAddress), sizeOf(m_RtcpAddress)) != 0) {
      return false;
    }
    m_Probe = std::move(probe);
  }
  auto const report = m_Table.makeReport(false);
  if (::send(m_Probe.get(), report.data(), report.size(), MSG_DONTWAIT) < 0 && errno == ECONNREFUSED) {
    ++m_Refusals;
  }
  return m_Refusals >= 2;
}

void Viewer::handleReport(std::span<std::uint8_t const> packet) {
  auto const now = Clock::now();
  if (auto const report = readReceiverReport(packet, m_Table.m_Callbacks.senderInfo().ssrc)) {
    m_Table.note(*this, *report, now);
  }
}

void Viewers::sendReports() {
  if (!anyActive()) {
    return;
  }
  m_NextReport.start(reportInterval);  // first: a report may fail
  auto const report = makeReport(false);
  for (auto const& viewer : m_Viewers) {
    if (viewer->isActive()) {
      sendReport(*viewer, report);
    }
  }
}

std::vector<std::uint8_t> Viewers::makeReport(bool bye) {
  SenderInfo const info = m_Callbacks.senderInfo();
  m_SentReports[m_NextSentReport++ % m_SentReports.size()] = {middleOf(info.ntpTime), Clock::now()};
  return makeSenderReport(info, m_Cname, bye);
}

void Viewers::sendReport(Viewer& viewer, std::span<std::uint8_t const> report) {
  if (viewer.isOverUdp()) {
    int const socket = m_Families[indexOf(viewer.m_RtcpAddress.ss_family)]->ports.rtcpSocket();
    (void)!sendto(socket, report.data(), report.size(), MSG_DONTWAIT,
                  reinterpret_cast<sockaddr const*>(&viewer.m_RtcpAddress), sizeOf(viewer.m_RtcpAddress));
  } else if (viewer.m_Writer) {
    viewer.m_Writer->sendReport(report, viewer.m_RtcpChannel);
  }
}

// Datagrams that are not a viewer's report cost the time to read them, no more.
void Viewers::receiveReports(int socket) {
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
    auto const packet = std::span(buffer).first(static_cast<std::size_t>(size));
    if (auto const report = readReceiverReport(packet, m_Callbacks.senderInfo().ssrc)) {
      if (Viewer* const viewer = reporterAt(from, now)) {
        note(*viewer, *report, now);
      }
    }
  }
}

// The viewer that reports from this address. Behind NAT the port may be
// another than the one that was announced; it belongs to the viewer of that
// address that has been silent longest, and stays with it.
Viewer* Viewers::reporterAt(sockaddr_storage const& from, Clock::time_point now) {
  Viewer* found = nullptr;
  Viewer* silent = nullptr;
  for (auto const& viewer : m_Viewers) {
    if (!isSameHost(viewer->m_RtcpAddress, from)) {
      continue;
    }
    if (portOf(from) == portOf(viewer->m_RtcpAddress) || portOf(from) == viewer->m_ReportPort) {
      found = found == nullptr || viewer->isActive() ? viewer.get() : found;  // others gave their ports up to it
    } else if (now - viewer->m_LastReport > reportPortTimeout &&
               (silent == nullptr || viewer->m_LastReport < silent->m_LastReport)) {
      silent = viewer.get();
    }
  }
  if (found == nullptr && silent != nullptr) {
    silent->m_ReportPort = portOf(from);
    found = silent;
  }
  return found;
}

bool Viewers::needsRepair(Viewer& viewer, Clock::time_point now) const {
  return m_HasDeltaFrames && viewer.m_State == Viewer::State::Playing && viewer.m_Repair.take(now);
}

void Viewers::note(Viewer& viewer, ReceiverReport const& report, Clock::time_point now) {
  viewer.m_Repair.noteReport(report, viewer.isOverUdp());
  if (needsRepair(viewer, now)) {
    m_Callbacks.wantKeyFrame(true);
  }
  if (report.block && viewer.m_Path) {
    viewer.m_Path->noteReport(report.block->fractionLost >= noticeableLoss, now);
  }
  if (now - viewer.m_LastReport < shortestReportInterval) {
    return;
  }
  viewer.m_LastReport = now;
  if (report.block) {
    auto& reception = viewer.m_Reception;
    reception.fractionLost = report.block->fractionLost;
    reception.packetsLost = report.block->packetsLost;
    reception.jitter = report.block->jitter;
    // By when that sender report was sent here, whatever has become of the wall clock since.
    auto const sent = std::find_if(m_SentReports.begin(), m_SentReports.end(), [&](SentReport const& entry) {
      return entry.ntpMiddle != 0 && entry.ntpMiddle == report.block->lastSenderReport;
    });
    if (sent != m_SentReports.end()) {
      auto const held = std::chrono::microseconds(std::uint64_t{report.block->sinceSenderReport} * 1000000 / 65536);
      auto const since = std::chrono::duration_cast<std::chrono::microseconds>(now - sent->time);
      reception.roundTrip = std::max(since - held, std::chrono::microseconds::zero());
    }
  }
  if (status::page() != nullptr) {
    viewer.noteReport(status::now());
  }
  if (viewer.m_OnSignOfLife) {
    auto const function = viewer.m_OnSignOfLife;
    function();
  }
}

}  // namespace kavo::impl
