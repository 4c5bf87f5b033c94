#include "delivery/udpsender.h"

#include <netinet/udp.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/address.h"

namespace kavo::impl {

namespace {

// The limits of one segmented message.
constexpr std::size_t maxSegments = 64;
constexpr std::size_t maxBytes = 65507;
constexpr std::size_t piecesPerPacket = 2;

// The kernel or this path does not support segmentation offload (EIO: an IPsec tunnel;
// EINVAL: also older kernels when the path MTU has shrunk).
bool isWithoutSegmentation(int error) {
  return error == EINVAL || error == EIO || error == EOPNOTSUPP || error == ENOPROTOOPT;
}

}  // namespace

void UdpSender::formTrains(FramePackets const& packets, std::size_t first, std::size_t last) {
  auto const pieces = packets.datagrams();
  m_Trains.clear();
  for (std::size_t begin = first; begin < last;) {
    std::size_t const segment = packets.size(begin);
    std::size_t bytes = segment;
    std::size_t end = begin + 1;
    while (end < last && packets.size(end - 1) == segment && packets.size(end) <= segment &&
           end - begin < maxSegments && bytes + packets.size(end) <= maxBytes) {
      bytes += packets.size(end++);
    }
    Train& train = m_Trains.emplace_back();
    train.pieces = pieces.subspan(piecesPerPacket * begin, piecesPerPacket * (end - begin));
    train.segmented = end - begin > 1;
    cmsghdr& header = *reinterpret_cast<cmsghdr*>(train.control.bytes);
    header.cmsg_level = IPPROTO_UDP;
    header.cmsg_type = UDP_SEGMENT;
    header.cmsg_len = CMSG_LEN(sizeof(std::uint16_t));
    auto const length = static_cast<std::uint16_t>(segment);
    std::memcpy(CMSG_DATA(&header), &length, sizeof length);
    begin = end;
  }
}

void UdpSender::send(int socket, FramePackets const& packets, std::size_t first, std::size_t last,
                     std::span<UdpDestination* const> destinations) {
  m_Socket = socket;
  formTrains(packets, first, last);
  for (UdpDestination* const destination : destinations) {
    for (Train& train : m_Trains) {
      if (destination->segmentation) {
        add(*destination, train.pieces, &train);
        continue;
      }
      for (std::size_t at = 0; at < train.pieces.size(); at += piecesPerPacket) {
        add(*destination, train.pieces.subspan(at, piecesPerPacket), nullptr);
      }
    }
  }
  flush();
}

void UdpSender::add(UdpDestination& destination, std::span<iovec const> pieces, Train* train) {
  if (m_Count == batch) {
    flush();
  }
  msghdr& message = m_Messages[m_Count].msg_hdr;
  message = {};
  message.msg_name = &destination.address;
  message.msg_namelen = sizeOf(destination.address);
  message.msg_iov = const_cast<iovec*>(pieces.data());
  message.msg_iovlen = pieces.size();
  if (train != nullptr && train->segmented) {
    message.msg_control = train->control.bytes;
    message.msg_controllen = sizeof train->control.bytes;
  }
  m_Targets[m_Count++] = &destination;
}

// Some containers' filters refuse sendmmsg with arbitrary errors: it is not used again once
// sendmsg has accepted the message that it refused.
int UdpSender::sendSome(std::size_t first) {
  if (m_HasSendmmsg) {
    int const sent = sendmmsg(m_Socket, &m_Messages[first], static_cast<unsigned>(m_Count - first), MSG_DONTWAIT);
    if (sent > 0 || (errno != ENOSYS && errno != EPERM && errno != EACCES && errno != EINVAL)) {
      return sent;
    }
  }
  bool const isTaken = sendmsg(m_Socket, &m_Messages[first].msg_hdr, MSG_DONTWAIT) >= 0;
  m_HasSendmmsg = m_HasSendmmsg && !isTaken;
  return isTaken ? 1 : -1;
}

void UdpSender::flush() {
  for (std::size_t at = 0; at < m_Count;) {
    UdpDestination& next = *m_Targets[at];
    if (next.exceedsMtu) {
      next.lost += m_Messages[at++].msg_hdr.msg_iovlen / piecesPerPacket;
      continue;
    }
    int const sent = sendSome(at);
    if (sent > 0) {
      at += static_cast<std::size_t>(sent);
    } else {
      // sendmmsg stops before the message that is refused.
      int const error = sent < 0 ? errno : EIO;
      retry(m_Messages[at++], next, error);
    }
  }
  m_Count = 0;
}

void UdpSender::retry(mmsghdr const& message, UdpDestination& destination, int error) {
  std::span<iovec const> pieces(message.msg_hdr.msg_iov, message.msg_hdr.msg_iovlen);
  if (message.msg_hdr.msg_controllen > 0 && isWithoutSegmentation(error)) {
    destination.segmentation = false;
    for (; !pieces.empty() && !destination.exceedsMtu; pieces = pieces.subspan(piecesPerPacket)) {
      msghdr single = message.msg_hdr;
      single.msg_control = nullptr;
      single.msg_controllen = 0;
      single.msg_iov = const_cast<iovec*>(pieces.data());
      single.msg_iovlen = piecesPerPacket;
      if (sendmsg(m_Socket, &single, MSG_DONTWAIT) < 0) {
        destination.exceedsMtu = errno == EMSGSIZE;
        ++destination.lost;
      }
    }
  }
  destination.exceedsMtu = destination.exceedsMtu || error == EMSGSIZE;
  destination.lost += pieces.size() / piecesPerPacket;
}

}  // namespace kavo::impl
