#include "delivery/udpsender.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace kavo {

namespace {

// What one segmented send may carry.
constexpr std::size_t maxSegments = 64;
constexpr std::size_t maxBytes = 65507;
// Messages that one system call hands over.
constexpr std::size_t batch = 256;

// Room for the one control message that tells the length of a segment.
union Control {
  cmsghdr header;
  char bytes[CMSG_SPACE(sizeof(std::uint16_t))];
};

std::uint16_t segmentOf(msghdr const& message) {
  std::uint16_t segment = 0;
  if (cmsghdr const* const header = CMSG_FIRSTHDR(&message); header != nullptr) {
    std::memcpy(&segment, CMSG_DATA(header), sizeof segment);
  }
  return segment;
}

void setSegment(msghdr& message, Control& control, std::uint16_t segment) {
  message.msg_control = control.bytes;
  message.msg_controllen = sizeof control.bytes;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = IPPROTO_UDP;
  header->cmsg_type = UDP_SEGMENT;
  header->cmsg_len = CMSG_LEN(sizeof segment);
  std::memcpy(CMSG_DATA(header), &segment, sizeof segment);
}

}  // namespace

socklen_t sizeOf(sockaddr_storage const& address) {
  return address.ss_family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
}

std::vector<UdpSender::Group> UdpSender::groupsOf(PacketRun const& run) const {
  std::vector<Group> groups;
  std::size_t offset = 0;
  bool open = false;  // the last group may take one more packet
  auto const fits = [&](std::size_t size) {
    Group const& last = groups.back();
    return size <= last.segment && last.length + size <= maxBytes && last.length / last.segment < maxSegments;
  };
  for (std::size_t const size : run.sizes) {
    if (open && fits(size)) {
      groups.back().length += size;
      open = size == groups.back().segment;
    } else {
      groups.push_back({offset, size, size});
      open = m_Segmentation;
    }
    offset += size;
  }
  return groups;
}

void UdpSender::send(int socket, PacketRun const& run, std::span<sockaddr_storage const> destinations) {
  auto const groups = groupsOf(run);
  std::vector<iovec> parts(groups.size());
  std::vector<Control> controls(groups.size());
  std::array<mmsghdr, batch> messages;
  std::size_t count = 0;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    parts[g] = {const_cast<std::uint8_t*>(run.bytes.data()) + groups[g].offset, groups[g].length};
  }
  for (auto const& destination : destinations) {
    for (std::size_t g = 0; g < groups.size(); ++g) {
      mmsghdr& message = messages[count++];
      message = {};
      message.msg_hdr.msg_name = const_cast<sockaddr_storage*>(&destination);
      message.msg_hdr.msg_namelen = sizeOf(destination);
      message.msg_hdr.msg_iov = &parts[g];
      message.msg_hdr.msg_iovlen = 1;
      if (groups[g].length > groups[g].segment) {
        setSegment(message.msg_hdr, controls[g], static_cast<std::uint16_t>(groups[g].segment));
      }
      if (count == batch) {
        sendAll(socket, messages);
        count = 0;
      }
    }
  }
  sendAll(socket, std::span(messages).first(count));
}

void UdpSender::sendAll(int socket, std::span<mmsghdr> messages) {
  while (!messages.empty()) {
    int const sent = sendmmsg(socket, messages.data(), static_cast<unsigned>(messages.size()), MSG_DONTWAIT);
    messages = messages.subspan(static_cast<std::size_t>(std::max(sent, 0)));
    // It stops in front of a message that is refused; that one gets its own treatment.
    if (!messages.empty() && sent <= 0) {
      sendOneByOne(socket, messages.front());
      messages = messages.subspan(1);
    }
  }
}

void UdpSender::sendOneByOne(int socket, mmsghdr const& message) {
  int const refusal = errno;
  std::size_t const segment = segmentOf(message.msg_hdr);
  if (segment > 0 && (refusal == EINVAL || refusal == EIO || refusal == EOPNOTSUPP || refusal == ENOPROTOOPT)) {
    m_Segmentation = false;  // not on this machine
  }
  auto const& destination = *static_cast<sockaddr_storage const*>(message.msg_hdr.msg_name);
  if (refusal == EMSGSIZE && m_OnTooNarrow) {
    m_OnTooNarrow(destination);
  }
  auto const* const bytes = static_cast<std::uint8_t const*>(message.msg_hdr.msg_iov->iov_base);
  std::size_t const length = message.msg_hdr.msg_iov->iov_len;
  std::size_t const step = segment > 0 ? segment : length;
  for (std::size_t at = 0; at < length; at += step) {
    if (sendto(socket, bytes + at, std::min(step, length - at), MSG_DONTWAIT,
               static_cast<sockaddr const*>(message.msg_hdr.msg_name), message.msg_hdr.msg_namelen) < 0) {
      ++m_Lost;
    }
  }
}

}  // namespace kavo
