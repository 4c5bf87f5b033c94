#include "rtsp/tcpoutput.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <utility>

namespace kavo {

namespace {

// What the kernel may hold unsent of a viewer's pictures. More would only make
// them old.
constexpr int unsentInKernel = 128 * 1024;

}  // namespace

constinit TcpOutput* TcpOutput::s_First = nullptr;

TcpOutput::TcpOutput(int socket, std::function<void(bool)> waitForRoom)
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

TcpOutput::~TcpOutput() {
  (m_Previous != nullptr ? m_Previous->m_Next : s_First) = m_Next;
  if (m_Next != nullptr) {
    m_Next->m_Previous = m_Previous;
  }
}

std::shared_ptr<TcpOutput> TcpOutput::of(int socket) {
  // One that is closed has no socket, and is nobody's.
  for (TcpOutput* output = socket >= 0 ? s_First : nullptr; output != nullptr; output = output->m_Next) {
    if (output->m_Socket == socket) {
      return output->shared_from_this();
    }
  }
  return nullptr;
}

// The connection is gone, and its descriptor's number may be another's soon.
void TcpOutput::close() {
  m_Socket = -1;
  m_Waiting.clear();
  m_Held = false;
}

// live555 does not look at how much of a response the socket took, so one is only
// made where the kernel calls the socket writable: a third of its buffer is free.
bool TcpOutput::admitsResponse() {
  pollfd socket{m_Socket, POLLOUT, 0};
  if (isIdle() && poll(&socket, 1, 0) > 0) {
    return true;
  }
  if (!isWaiting()) {
    wait();
  }
  m_Held = true;
  return false;
}

bool TcpOutput::sendPicture(std::span<std::uint8_t const> framed, bool keyPicture) {
  m_LacksKey = isWaiting() || (m_LacksKey && !keyPicture);
  if (!m_LacksKey) {
    write(framed);
  }
  return !m_LacksKey;
}

void TcpOutput::sendReport(std::span<std::uint8_t const> framed) {
  if (!isWaiting()) {
    write(framed);
  }
}

void TcpOutput::write(std::span<std::uint8_t const> framed) {
  if (m_Socket < 0) {
    return;
  }
  std::size_t const sent = sendNow(framed);
  if (sent < framed.size()) {
    wait();
    auto const rest = framed.subspan(sent);
    m_Waiting.assign(rest.begin(), rest.end());
  }
}

void TcpOutput::wait() {
  m_LastProgress = Clock::now();
  m_WaitForRoom(true);
}

void TcpOutput::flush() {
  std::size_t const sent = sendNow(std::span(m_Waiting).subspan(m_Sent));
  m_Sent += sent;
  if (sent > 0) {
    m_LastProgress = Clock::now();
  }
  if (m_Sent == m_Waiting.size()) {
    m_Waiting.clear();
    m_Waiting.shrink_to_fit();
    m_Sent = 0;
    m_Held = false;
    m_WaitForRoom(false);
  }
}

// How much the socket took. One that is broken takes nothing more, and its
// connection will hear of it when it reads.
std::size_t TcpOutput::sendNow(std::span<std::uint8_t const> bytes) {
  ssize_t const sent = ::send(m_Socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  m_Progressed = m_Progressed || sent > 0;
  return sent > 0 ? static_cast<std::size_t>(sent) : 0;
}

}  // namespace kavo
