#include "rtsp/picturegroupsock.h"

#include <netinet/in.h>

#include <GroupsockHelper.hh>
#include <algorithm>
#include <utility>

#include "rtsp/nalunits.h"

namespace kavo {

namespace {

// A picture up to this size leaves at once; a larger one in cuts of it, which
// small buffers on the way can take.
constexpr std::size_t cutBytes = 32768;
// The pace at which a link of 100 Mbit/s keeps up; slower would only add delay.
constexpr std::chrono::microseconds longestGap{3000};
constexpr std::chrono::microseconds shortestInterval{10000};
constexpr std::chrono::microseconds longestInterval{200000};

constexpr std::size_t rtpHeader = 12;
constexpr int jpegPayload = 26;
constexpr unsigned ipAndUdpHeaders = 48;  // of IPv6

bool isReport(std::span<std::uint8_t const> packet) { return packet[1] >= 192 && packet[1] <= 223; }

bool hasMarker(std::span<std::uint8_t const> packet) { return (packet[1] & 0x80) != 0; }

std::uint32_t timestampOf(std::span<std::uint8_t const> packet) {
  return static_cast<std::uint32_t>(packet[4] << 24 | packet[5] << 16 | packet[6] << 8 | packet[7]);
}

// From its first packet: every JPEG image is one to begin with, and an H.264
// picture that comes with its parameter sets.
bool startsKeyPicture(std::span<std::uint8_t const> packet) {
  return (packet[1] & 0x7F) == jpegPayload ||
         (packet.size() > rtpHeader && typeOf(packet.subspan(rtpHeader)) == NalUnitType::Sps);
}

// The packets as they go over an RTSP connection.
std::vector<std::uint8_t> framed(PacketRun const& run, std::uint8_t channel) {
  std::vector<std::uint8_t> bytes;
  bytes.reserve(run.bytes.size() + 4 * run.sizes.size());
  auto from = run.bytes.begin();
  for (std::size_t const size : run.sizes) {
    bytes.insert(bytes.end(), {'$', channel, static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)});
    bytes.insert(bytes.end(), from, from + static_cast<std::ptrdiff_t>(size));
    from += static_cast<std::ptrdiff_t>(size);
  }
  return bytes;
}

}  // namespace

PictureGroupsock::PictureGroupsock(UsageEnvironment& env, sockaddr_storage const& address, Port port,
                                   std::shared_ptr<TcpViewers const> tcpViewers, Callbacks callbacks)
    : Groupsock(env, address, port, 255),
      m_Family(address.ss_family),
      m_Port(port),
      m_TcpViewers(std::move(tcpViewers)),
      m_Callbacks(std::move(callbacks)) {
  m_Sender.onPathTooNarrow([this](sockaddr_storage const& destination) {
    eventLoopRole.assertHeld();
    askPath(destination);
  });
}

PictureGroupsock::~PictureGroupsock() {
  eventLoopRole.assertHeld();
  env().taskScheduler().unscheduleDelayedTask(m_PaceTask);
}

void PictureGroupsock::addDestination(sockaddr_storage const& address, Port const& port, unsigned sessionId) {
  eventLoopRole.assertHeld();
  if (auto const viewer = m_TcpViewers->find(sessionId); viewer != m_TcpViewers->end()) {
    bool const report = port.num() == htons(rtcpOverTcpPort);
    m_TcpDestinations[sessionId] = {viewer->second.output,
                                    report ? viewer->second.rtcpChannel : viewer->second.rtpChannel};
    return;
  }
  sockaddr_storage destination = address;
  setPortNum(destination, port.num());
  m_UdpDestinations[sessionId] = destination;
  m_Addresses[destination.ss_family == AF_INET6 ? 1 : 0].push_back(destination);
  askPath(destination);
}

void PictureGroupsock::removeDestination(unsigned sessionId) {
  eventLoopRole.assertHeld();
  m_TcpDestinations.erase(sessionId);
  m_UdpDestinations.erase(sessionId);
  m_Addresses[0].clear();
  m_Addresses[1].clear();
  for (auto const& [id, destination] : m_UdpDestinations) {
    m_Addresses[destination.ss_family == AF_INET6 ? 1 : 0].push_back(destination);
  }
}

Boolean PictureGroupsock::output(UsageEnvironment&, unsigned char* buffer, unsigned size) {
  eventLoopRole.assertHeld();
  std::span<std::uint8_t const> const packet(buffer, size);
  if (size < rtpHeader || isReport(packet)) {
    PacketRun report;
    report.add(packet);
    send(report, true);
  } else {
    addPacket(packet);
  }
  return True;
}

void PictureGroupsock::addPacket(std::span<std::uint8_t const> packet) {
  // A picture whose end never came must not keep the next one waiting.
  if (m_InsidePicture && timestampOf(packet) != m_Timestamp) {
    cut(true);
  }
  if (!m_InsidePicture) {
    m_InsidePicture = true;
    m_Timestamp = timestampOf(packet);
    m_Gathered.startsPicture = true;
    m_Gathered.keyPicture = startsKeyPicture(packet);
  }
  m_Gathered.add(packet);
  m_PictureBytes += packet.size();
  if (hasMarker(packet)) {
    cut(true);
  } else if (m_Gathered.bytes.size() + packet.size() > cutBytes) {
    cut(false);
  }
}

// What has been gathered leaves now, or when its turn comes.
void PictureGroupsock::cut(bool endsPicture) {
  m_Cuts.push_back(std::exchange(m_Gathered, {}));
  m_Gathered.keyPicture = m_Cuts.back().keyPicture;
  if (endsPicture) {
    m_InsidePicture = false;
    notePicture();
  }
  if (m_PaceTask == nullptr) {
    pace();
  }
}

// Sends cuts that are due. Those of a large picture are spread over a quarter of
// the time between pictures at most: all at once they would overflow what is on
// the way.
void PictureGroupsock::pace() {
  m_PaceTask = nullptr;
  while (!m_Cuts.empty()) {
    auto const now = Clock::now();
    if (now < m_NextCut) {
      m_PaceTask = env().taskScheduler().scheduleDelayedTask(
          std::chrono::ceil<std::chrono::microseconds>(m_NextCut - now).count(),
          [](void* groupsock) {
            eventLoopRole.assertHeld();
            static_cast<PictureGroupsock*>(groupsock)->pace();
          },
          this);
      return;
    }
    send(m_Cuts.front(), false);
    m_Cuts.pop_front();
    auto const cuts = std::max(m_LastPictureBytes, m_PictureBytes) / cutBytes + 1;
    m_NextCut = now + std::min(longestGap, m_Interval / 4 / static_cast<int>(cuts));
  }
}

void PictureGroupsock::notePicture() {
  auto const now = Clock::now();
  auto const since = std::chrono::duration_cast<std::chrono::microseconds>(now - m_LastPicture);
  m_Interval = (3 * m_Interval + std::clamp(since, shortestInterval, longestInterval)) / 4;
  m_LastPicture = now;
  m_LastPictureBytes = std::exchange(m_PictureBytes, 0);
}

void PictureGroupsock::send(PacketRun const& run, bool report) {
  if (!m_Addresses[0].empty()) {
    m_Sender.send(socketFor(AF_INET), run, m_Addresses[0]);
  }
  if (!m_Addresses[1].empty()) {
    m_Sender.send(socketFor(AF_INET6), run, m_Addresses[1]);
  }
  if (!m_TcpDestinations.empty()) {
    sendOverTcp(run, report);
  }
}

void PictureGroupsock::sendOverTcp(PacketRun const& run, bool report) {
  bool lacksKey = false;
  std::map<std::uint8_t, std::vector<std::uint8_t>> byChannel;  // almost always one
  for (auto const& [sessionId, destination] : m_TcpDestinations) {
    auto& bytes = byChannel[destination.channel];
    if (bytes.empty()) {
      bytes = framed(run, destination.channel);
    }
    if (report) {
      destination.output->sendReport(bytes);
    } else {
      lacksKey = !destination.output->sendPicture(bytes, run.startsPicture, run.keyPicture) || lacksKey;
    }
  }
  if (lacksKey) {
    m_Callbacks.keyPictureWanted();
  }
}

// live555's socket is of one family; viewers of the other are sent to from a
// second one, of the same port.
int PictureGroupsock::socketFor(int family) {
  if (family == m_Family) {
    return socketNum();
  }
  if (m_OtherFamily.get() < 0) {
    m_OtherFamily = Descriptor(socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    int const on = 1;
    sockaddr_storage local{};
    local.ss_family = static_cast<sa_family_t>(family);
    setPortNum(local, m_Port.num());
    if (family == AF_INET6) {
      setsockopt(m_OtherFamily.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    // A port that another program has is no reason to send nothing; nor is a
    // machine without that family one to look further.
    if (m_OtherFamily.get() < 0) {
      return -1;
    }
    (void)!bind(m_OtherFamily.get(), reinterpret_cast<sockaddr const*>(&local), sizeOf(local));
  }
  return m_OtherFamily.get();
}

// What a connected socket says of the way to the viewer.
void PictureGroupsock::askPath(sockaddr_storage const& address) {
  Descriptor const probe(socket(address.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  int mtu = 0;
  socklen_t size = sizeof mtu;
  bool const ipv6 = address.ss_family == AF_INET6;
  if (probe.get() >= 0 && connect(probe.get(), reinterpret_cast<sockaddr const*>(&address), sizeOf(address)) == 0 &&
      getsockopt(probe.get(), ipv6 ? IPPROTO_IPV6 : IPPROTO_IP, ipv6 ? IPV6_MTU : IP_MTU, &mtu, &size) == 0 &&
      mtu > static_cast<int>(ipAndUdpHeaders)) {
    m_Callbacks.packetSizeWanted(static_cast<unsigned>(mtu) - ipAndUdpHeaders);
  }
}

}  // namespace kavo
