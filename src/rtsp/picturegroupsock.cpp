#include "rtsp/picturegroupsock.h"

#include <netinet/in.h>

#include <GroupsockHelper.hh>
#include <algorithm>
#include <utility>

#include "delivery/pathmtu.h"
#include "rtp/nalunits.h"

namespace kavo {

namespace {

// A picture up to this size leaves at once over UDP; a larger one in cuts of it,
// which small buffers on the way can take.
constexpr std::size_t cutBytes = 32768;
// The pace at which a link of 100 Mbit/s keeps up; slower would only add delay.
constexpr std::chrono::microseconds longestGap{3000};
constexpr std::chrono::microseconds shortestInterval{10000};
constexpr std::chrono::microseconds longestInterval{200000};

constexpr std::size_t rtpHeader = 12;
constexpr int jpegPayload = 26;

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
FramedPackets framed(PacketRun const& run, std::uint8_t channel) {
  auto const framed = std::make_shared<std::vector<std::uint8_t>>();
  auto& bytes = *framed;
  bytes.reserve(run.bytes.size() + 4 * run.sizes.size());
  auto from = run.bytes.begin();
  for (std::size_t const size : run.sizes) {
    bytes.insert(bytes.end(), {'$', channel, static_cast<std::uint8_t>(size >> 8), static_cast<std::uint8_t>(size)});
    bytes.insert(bytes.end(), from, from + static_cast<std::ptrdiff_t>(size));
    from += static_cast<std::ptrdiff_t>(size);
  }
  return framed;
}

}  // namespace

PictureGroupsock::PictureGroupsock(UsageEnvironment& env, sockaddr_storage const& address, Port port,
                                   std::shared_ptr<TcpViewers const> tcpViewers, Callbacks callbacks)
    : Groupsock(env, address, port, 255),
      m_Family(address.ss_family),
      m_Port(port),
      m_TcpViewers(std::move(tcpViewers)),
      m_Callbacks(std::move(callbacks)) {
  m_Sender.onPathTooNarrow(m_Callbacks.pathTooNarrow);
  refuseToFragment(socketNum(), m_Family);
}

PictureGroupsock::~PictureGroupsock() {
  eventLoopRole.assertHeld();
  env().taskScheduler().unscheduleDelayedTask(m_CutTask);
}

void PictureGroupsock::addDestination(sockaddr_storage const& address, Port const& port, unsigned sessionId) {
  eventLoopRole.assertHeld();
  if (isInsidePicture() || !m_Cuts.empty()) {  // of which it would get the end, or what its path does not take
    m_Joining.insert_or_assign(sessionId, Joining{address, port});
    return;
  }
  if (auto const viewer = m_TcpViewers->find(sessionId); viewer != m_TcpViewers->end()) {
    bool const report = port.num() == htons(rtcpOverTcpPort);
    m_TcpDestinations[sessionId] = {.output = viewer->second.output,
                                    .channel = report ? viewer->second.rtcpChannel : viewer->second.rtpChannel};
    return;
  }
  sockaddr_storage destination = address;
  setPortNum(destination, port.num());
  m_UdpDestinations[sessionId] = destination;
  listAddresses();
}

void PictureGroupsock::removeDestination(unsigned sessionId) {
  eventLoopRole.assertHeld();
  m_Joining.erase(sessionId);
  if (auto const viewer = m_TcpDestinations.find(sessionId); viewer != m_TcpDestinations.end()) {
    viewer->second.output->forget(viewer->second.channel);
    m_TcpDestinations.erase(viewer);
  }
  m_UdpDestinations.erase(sessionId);
  listAddresses();
}

void PictureGroupsock::listAddresses() {
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
    sendReport(packet);
  } else {
    addPacket(packet);
  }
  return True;
}

void PictureGroupsock::addPacket(std::span<std::uint8_t const> packet) {
  // A picture whose end never came must not keep the next one waiting.
  if (isInsidePicture() && timestampOf(packet) != m_Timestamp) {
    endPicture();
  }
  if (!isInsidePicture()) {
    beginPicture(packet);
  }
  m_Picture.add(packet);
  if (hasMarker(packet)) {
    endPicture();
  }
}

void PictureGroupsock::beginPicture(std::span<std::uint8_t const> firstPacket) {
  m_Timestamp = timestampOf(firstPacket);
  m_Picture.keyPicture = startsKeyPicture(firstPacket);
  // Cuts of the last picture that still wait would only make this one late.
  while (!m_Cuts.empty()) {
    sendCut();
  }
  for (auto const& [sessionId, joining] : std::exchange(m_Joining, {})) {
    addDestination(joining.address, joining.port, sessionId);
  }
}

void PictureGroupsock::endPicture() {
  PacketRun picture = std::exchange(m_Picture, {});
  noteInterval();
  sendOverTcp(picture);
  if (!m_UdpDestinations.empty()) {
    cut(std::move(picture));
    sendCut();
  }
}

void PictureGroupsock::noteInterval() {
  auto const now = Clock::now();
  auto const since = std::chrono::duration_cast<std::chrono::microseconds>(now - m_LastPicture);
  m_Interval = (3 * m_Interval + std::clamp(since, shortestInterval, longestInterval)) / 4;
  m_LastPicture = now;
}

// All of a large picture at once would overflow what is on the way: its cuts are
// spread over a quarter of the time between pictures at most.
void PictureGroupsock::cut(PacketRun picture) {
  if (picture.bytes.size() <= cutBytes) {
    m_Cuts.push_back(std::move(picture));
    return;
  }
  std::span<std::uint8_t const> rest(picture.bytes);
  for (std::size_t const size : picture.sizes) {
    if (m_Cuts.empty() || m_Cuts.back().bytes.size() + size > cutBytes) {
      m_Cuts.emplace_back();
    }
    m_Cuts.back().add(rest.first(size));
    rest = rest.subspan(size);
  }
  m_Gap = std::min(longestGap, m_Interval / 4 / static_cast<int>(m_Cuts.size()));
}

void PictureGroupsock::sendCut() {
  env().taskScheduler().unscheduleDelayedTask(m_CutTask);
  PacketRun const run = std::move(m_Cuts.front());
  m_Cuts.pop_front();
  if (!m_Cuts.empty()) {
    m_CutTask = env().taskScheduler().scheduleDelayedTask(
        m_Gap.count(),
        [](void* groupsock) {
          eventLoopRole.assertHeld();
          static_cast<PictureGroupsock*>(groupsock)->sendCut();
        },
        this);
  }
  sendOverUdp(run);
}

void PictureGroupsock::sendOverUdp(PacketRun const& run) {
  if (!m_Addresses[0].empty()) {
    m_Sender.send(socketFor(AF_INET), run, m_Addresses[0]);
  }
  if (!m_Addresses[1].empty()) {
    m_Sender.send(socketFor(AF_INET6), run, m_Addresses[1]);
  }
}

// Whole and at once: the kernel paces what it sends over a connection itself.
void PictureGroupsock::sendOverTcp(PacketRun const& picture) {
  bool lacksKey = false;
  std::map<std::uint8_t, FramedPackets> byChannel;  // almost always one
  for (auto const& [sessionId, destination] : m_TcpDestinations) {
    auto& bytes = byChannel[destination.channel];
    if (!bytes) {
      bytes = framed(picture, destination.channel);
    }
    lacksKey = !destination.output->sendPicture(bytes, picture.keyPicture) || lacksKey;
  }
  if (lacksKey) {
    m_Callbacks.keyPictureWanted();
  }
}

void PictureGroupsock::sendReport(std::span<std::uint8_t const> report) {
  PacketRun run;
  run.add(report);
  sendOverUdp(run);
  for (auto const& [sessionId, destination] : m_TcpDestinations) {
    destination.output->sendReport(framed(run, destination.channel));
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
    refuseToFragment(m_OtherFamily.get(), family);
    // A port that another program has is no reason to send nothing; nor is a
    // machine without that family one to look further.
    if (m_OtherFamily.get() < 0) {
      return -1;
    }
    (void)!bind(m_OtherFamily.get(), reinterpret_cast<sockaddr const*>(&local), sizeOf(local));
  }
  return m_OtherFamily.get();
}

}  // namespace kavo
