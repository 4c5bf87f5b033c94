#include "delivery/interleavedwriter.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "delivery/tcppath.h"
#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

// The kernel accepts a frame only after sending everything before it (it checks at the
// end of a record). Frames in the kernel cannot be dropped, so a viewer that resumes
// reading would get old ones first.
constexpr int unsentInKernel = 1;

// The limit of one system call.
constexpr std::size_t maxPieces = 1024;

std::size_t bytesIn(std::span<iovec const> pieces) {
  std::size_t size = 0;
  for (iovec const& piece : pieces) {
    size += piece.iov_len;
  }
  return size;
}

}  // namespace

InterleavedWriter::InterleavedWriter(TaskScheduler& scheduler, int socket, std::function<void(bool)> setWriteInterest)
    : m_Socket(socket),
      m_SetWriteInterest(std::move(setWriteInterest)),
      m_NextTry(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) {
        if (!contained([this]() KAVO_REQUIRES(eventLoopRole) { flush(); })) {
          giveUp();
        }
      }) {
  int const on = 1;
  // Otherwise the last packet of a frame waits up to 40 ms for the client's delayed acknowledgement.
  setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &unsentInKernel, sizeof unsentInKernel);
}

void InterleavedWriter::close() {
  m_Socket = -1;  // another connection may soon have the number
  m_Waiting.clear();
  m_FrontOffset = 0;
  m_Blocked = false;
  m_NextTry.stop();
}

// live555 does not check how much of a response the socket accepted, so a response is
// allowed only while the kernel reports the socket writable: a third of its buffer is free.
bool InterleavedWriter::prepareForResponse() {
  pollfd socket{m_Socket, POLLOUT, 0};
  if (m_FrontOffset == 0 && poll(&socket, 1, 0) > 0) {
    return true;
  }
  m_ResponseWaits = true;
  waitForSocket();
  return false;
}

Transport::Outcome InterleavedWriter::sendFrame(FramePtr const& frame, std::uint8_t channel, Clock::time_point now) {
  Transport::Outcome outcome;
  if (!m_Waiting.empty() && (frame->isKeyFrame || isBehind(*frame, channel, now))) {
    outcome = {.accepted = frame->isKeyFrame, .dropped = dropUnsent(channel)};  // a key frame supersedes it
  }
  if (m_Socket >= 0 && outcome.accepted) {
    std::size_t const sent = m_Blocked || !hasRoom() ? 0 : write(frame->packets.interleaved(channel), 0, channel);
    if (sent < frame->packets.interleavedBytes()) {
      wait({.frame = frame, .report = {}, .channel = channel, .since = now}, sent);
    }
  }
  return outcome;
}

void InterleavedWriter::sendReport(std::span<std::uint8_t const> report, std::uint8_t channel) {
  if (m_Socket < 0 || std::ranges::find(m_Waiting, channel, &Waiting::channel) != m_Waiting.end()) {
    return;
  }
  std::vector<std::uint8_t> bytes = {'$', channel, static_cast<std::uint8_t>(report.size() >> 8),
                                     static_cast<std::uint8_t>(report.size())};
  bytes.insert(bytes.end(), report.begin(), report.end());
  iovec const piece{bytes.data(), bytes.size()};
  std::size_t const sent = m_Blocked ? 0 : write({&piece, 1}, 0, channel);
  if (sent < bytes.size()) {
    wait({.frame = nullptr, .report = std::move(bytes), .channel = channel, .since = Clock::now()}, sent);
  }
}

// Without memory for the rest of a frame partly sent, the connection is unusable.
void InterleavedWriter::giveUp() {
  shutdown(m_Socket, SHUT_RDWR);  // its owner sees the end when it reads
  close();
}

void InterleavedWriter::wait(Waiting waiting, std::size_t sent) {
  if (std::ranges::all_of(m_Waiting, &Waiting::cancelled)) {
    m_LastProgress = waiting.since;  // nothing was waiting until now
  }
  try {
    m_Waiting.push_back(std::move(waiting));
  } catch (...) {
    giveUp();
    return;
  }
  m_FrontOffset += sent;
  if (!m_NextTry.isPending()) {
    waitForSocket();
  }
}

// Whether a new frame may be started. If not, flush() is called as soon as it may.
bool InterleavedWriter::hasRoom() {
  eventLoopRole.assertHeld();
  auto const time = untilPathTakesMore(m_Socket);
  if (time > time.zero()) {
    m_Blocked = true;
    setWriteInterest(false);  // the socket itself would accept more
    m_NextTry.start(time);
  }
  return time == time.zero();
}

// flush() is then called by the connection alone, which answers held-back requests after it.
void InterleavedWriter::waitForSocket() {
  m_Blocked = true;
  m_NextTry.stop();
  setWriteInterest(true);
}

void InterleavedWriter::setWriteInterest(bool wanted) {
  if (std::exchange(m_WriteInterest, wanted) != wanted) {
    m_SetWriteInterest(wanted);
  }
}

void InterleavedWriter::cancel(std::uint8_t channel) {
  dropUnsent(channel);
  if (!m_Waiting.empty() && m_Waiting.front().channel == channel) {
    m_Waiting.front().cancelled = true;
  }
}

// Whether the queued frames would be too old, or too large together with the next one.
bool InterleavedWriter::isBehind(Frame const& next, std::uint8_t channel, Clock::time_point now) const {
  std::size_t bytes = 0;
  bool late = false;
  for (std::size_t i = firstUnsent(); i < m_Waiting.size(); ++i) {
    if (m_Waiting[i].channel == channel) {
      bytes += m_Waiting[i].size();
      late = late || now - m_Waiting[i].since > maxAge;
    }
  }
  return late || (bytes > 0 && bytes + next.packets.interleavedBytes() > maxWaiting);
}

std::size_t InterleavedWriter::dropUnsent(std::uint8_t channel) {
  auto const from = m_Waiting.begin() + static_cast<std::ptrdiff_t>(firstUnsent());
  auto const dropped =
      std::remove_if(from, m_Waiting.end(), [&](Waiting const& waiting) { return waiting.channel == channel; });
  auto const count = static_cast<std::size_t>(m_Waiting.end() - dropped);
  m_Waiting.erase(dropped, m_Waiting.end());
  return count;
}

void InterleavedWriter::flush() {
  while (!m_Waiting.empty() && (m_FrontOffset > 0 || !m_ResponseWaits)) {
    if (m_FrontOffset == 0 && !hasRoom()) {
      return;
    }
    Waiting& front = m_Waiting.front();
    iovec const report{front.report.data(), front.report.size()};
    auto const pieces = front.frame ? front.frame->packets.interleaved(front.channel) : std::span(&report, 1);
    std::size_t const sent = write(pieces, m_FrontOffset, front.channel);
    if (sent > 0) {
      m_LastProgress = Clock::now();
    }
    if (m_FrontOffset + sent < front.size()) {
      m_FrontOffset += sent;
      waitForSocket();
      return;
    }
    m_Waiting.erase(m_Waiting.begin());
    m_FrontOffset = 0;
  }
  m_ResponseWaits = false;
  if (m_Waiting.empty()) {
    m_Blocked = false;
    setWriteInterest(false);
  }
}

// Returns how many bytes the socket accepted after those to skip. A broken socket accepts
// none; the connection notices when it reads.
std::size_t InterleavedWriter::write(std::span<iovec const> pieces, std::size_t skip, std::uint8_t channel) {
  for (; !pieces.empty() && skip >= pieces[0].iov_len; pieces = pieces.subspan(1)) {
    skip -= pieces[0].iov_len;
  }
  if (skip > 0) {
    m_Rest.assign(pieces.begin(), pieces.end());
    m_Rest[0] = {static_cast<std::uint8_t*>(m_Rest[0].iov_base) + skip, m_Rest[0].iov_len - skip};
    pieces = m_Rest;
  }
  std::size_t total = 0;
  while (!pieces.empty()) {
    auto const part = pieces.first(std::min(pieces.size(), maxPieces));
    pieces = pieces.subspan(part.size());
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(part.data());
    message.msg_iovlen = part.size();
    ssize_t const sent =
        sendmsg(m_Socket, &message, MSG_DONTWAIT | MSG_NOSIGNAL | (pieces.empty() ? MSG_EOR : MSG_MORE));
    if (sent <= 0) {
      break;
    }
    m_Progress.set(channel);
    total += static_cast<std::size_t>(sent);
    if (static_cast<std::size_t>(sent) < bytesIn(part)) {
      break;
    }
  }
  return total;
}

// A viewer without anything queued, such as a paused one, is not stalled.
bool InterleavedWriter::isStalled(Clock::time_point now) const {
  return now - m_LastProgress > stallTimeout && !std::ranges::all_of(m_Waiting, &Waiting::cancelled);
}

bool InterleavedWriter::takeProgress(std::uint8_t channel) {
  bool const progressed = m_Progress.test(channel);
  m_Progress.reset(channel);
  return progressed;
}

}  // namespace kavo::impl
