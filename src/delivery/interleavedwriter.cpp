#include "delivery/interleavedwriter.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace kavo {

namespace {

// The kernel takes a picture only when it has sent all before (which it looks at
// where a record ended). Nothing can be taken back from it, so old pictures would
// come first when a viewer goes on reading.
constexpr int unsentInKernel = 1;

std::uint8_t channelOf(FramedPackets const& packets) { return (*packets)[1]; }

}  // namespace

constinit InterleavedWriter* InterleavedWriter::s_First = nullptr;

InterleavedWriter::InterleavedWriter(int socket, std::function<void(bool)> waitForRoom)
    : m_Next(s_First), m_Socket(socket), m_WaitForRoom(std::move(waitForRoom)) {
  if (m_Next != nullptr) {
    m_Next->m_Previous = this;
  }
  s_First = this;
  int const on = 1;
  // A picture's last packet would wait for the client's delayed acknowledgement, 40 ms.
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsentInKernel, sizeof unsentInKernel);
}

InterleavedWriter::~InterleavedWriter() {
  (m_Previous != nullptr ? m_Previous->m_Next : s_First) = m_Next;
  if (m_Next != nullptr) {
    m_Next->m_Previous = m_Previous;
  }
}

std::shared_ptr<InterleavedWriter> InterleavedWriter::of(int socket) {
  // One that is closed has no socket, and is nobody's.
  for (InterleavedWriter* output = socket >= 0 ? s_First : nullptr; output != nullptr; output = output->m_Next) {
    if (output->m_Socket == socket) {
      return output->shared_from_this();
    }
  }
  return nullptr;
}

// The connection is gone, and its descriptor's number may be another's soon.
void InterleavedWriter::close() {
  m_Socket = -1;
  m_Waiting.clear();
  m_Begun = 0;
  m_WaitsForRoom = false;
}

// live555 does not look at how much of a response the socket took, so one is only
// made where the kernel calls the socket writable: a third of its buffer is free.
bool InterleavedWriter::admitsResponse() {
  pollfd socket{m_Socket, POLLOUT, 0};
  if (m_Begun == 0 && poll(&socket, 1, 0) > 0) {
    return true;
  }
  m_HeldForResponse = true;
  waitForRoom();
  return false;
}

bool InterleavedWriter::sendPicture(FramedPackets const& picture, bool keyPicture) {
  auto const channel = channelOf(picture);
  if (keyPicture) {
    dropNotBegun(channel);  // what builds on older pictures is not needed any more
    m_LackKey.erase(channel);
  } else if (isBehind(picture)) {
    dropNotBegun(channel);
    m_LackKey.insert(channel);
  }
  if (m_LackKey.contains(channel)) {
    return m_WaitsForRoom;  // a key picture is large for everybody; it is asked for when it can be sent
  }
  write(picture);
  return true;
}

void InterleavedWriter::forget(std::uint8_t channel) {
  dropNotBegun(channel);
  m_LackKey.erase(channel);
}

void InterleavedWriter::sendReport(FramedPackets const& report) {
  if (!m_WaitsForRoom) {
    write(report);
  }
}

void InterleavedWriter::write(FramedPackets const& packets) {
  if (m_Socket < 0) {
    return;
  }
  std::size_t const sent = m_WaitsForRoom ? 0 : sendNow(*packets);
  if (sent < packets->size()) {
    m_Waiting.push_back({packets, Clock::now()});
    m_Begun += sent;
    waitForRoom();
  }
}

void InterleavedWriter::waitForRoom() {
  if (!std::exchange(m_WaitsForRoom, true)) {
    m_LastProgress = Clock::now();
    m_WaitForRoom(true);
  }
}

// Whether what waits would come too late with the next picture, or be too much.
bool InterleavedWriter::isBehind(FramedPackets const& next) const {
  auto const now = Clock::now();
  std::size_t bytes = next->size();
  bool late = false;
  for (std::size_t i = firstNotBegun(); i < m_Waiting.size(); ++i) {
    if (channelOf(m_Waiting[i].packets) == channelOf(next)) {
      bytes += m_Waiting[i].packets->size();
      late = late || now - m_Waiting[i].since > maxAge;
    }
  }
  return late || (bytes > maxWaiting && bytes > next->size());
}

void InterleavedWriter::dropNotBegun(std::uint8_t channel) {
  auto const from = m_Waiting.begin() + static_cast<std::ptrdiff_t>(firstNotBegun());
  m_Waiting.erase(
      std::remove_if(from, m_Waiting.end(), [&](Waiting const& w) { return channelOf(w.packets) == channel; }),
      m_Waiting.end());
}

void InterleavedWriter::flush() {
  while (!m_Waiting.empty() && (m_Begun > 0 || !m_HeldForResponse)) {
    auto const& packets = *m_Waiting.front().packets;
    m_Begun += sendNow(std::span(packets).subspan(m_Begun));
    if (m_Begun < packets.size()) {
      return;
    }
    m_Waiting.erase(m_Waiting.begin());
    m_Begun = 0;
  }
  m_HeldForResponse = false;
  if (m_Waiting.empty()) {
    m_WaitsForRoom = false;
    m_WaitForRoom(false);
  }
}

// How much the socket took. One that is broken takes nothing more, and its
// connection will hear of it when it reads.
std::size_t InterleavedWriter::sendNow(std::span<std::uint8_t const> bytes) {
  ssize_t const sent = ::send(m_Socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL | MSG_EOR);
  if (sent <= 0) {
    return 0;
  }
  m_Progressed = true;
  m_LastProgress = Clock::now();
  return static_cast<std::size_t>(sent);
}

}  // namespace kavo
