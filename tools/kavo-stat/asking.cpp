#include "asking.h"

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

// Closed on destruction.
struct Socket {
  explicit Socket(int family) : descriptor(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (descriptor < 0) {
      throw StatusError(std::string("cannot open a socket: ") + std::strerror(errno));
    }
    timeval const limit{.tv_sec = 5, .tv_usec = 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  }
  ~Socket() { close(descriptor); }
  Socket(Socket const&) = delete;
  Socket& operator=(Socket const&) = delete;

  int descriptor;
};

[[noreturn]] void fail(std::string const& address, std::string const& reason) {
  throw StatusError("nobody answers at " + address + " (" + reason +
                    "): is the host running, with KAVO_STREAM_STATUS=" + address + " in its environment?");
}

std::unique_ptr<Socket> connectTo(std::string const& address) {
  if (address.find('/') != std::string::npos) {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    address.copy(to.sun_path, sizeof to.sun_path - 1);
    auto socket = std::make_unique<Socket>(AF_UNIX);
    if (connect(socket->descriptor, reinterpret_cast<sockaddr const*>(&to), sizeof to) != 0) {
      fail(address, std::strerror(errno));
    }
    return socket;
  }
  auto const colon = address.rfind(':');
  if (colon == std::string::npos) {
    throw StatusError("'" + address + "' is neither HOST:PORT nor the path of a socket");
  }
  bool const bracketed = address.starts_with('[') && colon > 1;
  std::string const host = bracketed ? address.substr(1, colon - 2) : address.substr(0, colon);
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  if (int const error = getaddrinfo(host.c_str(), address.substr(colon + 1).c_str(), &hints, &found); error != 0) {
    fail(address, gai_strerror(error));
  }
  std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> const owner(found, freeaddrinfo);
  auto socket = std::make_unique<Socket>(found->ai_family);
  if (connect(socket->descriptor, found->ai_addr, found->ai_addrlen) != 0) {
    fail(address, std::strerror(errno));
  }
  return socket;
}

}  // namespace

std::string ask(std::string const& address, std::string const& path) {
  auto const socket = connectTo(address);
  std::string const request = "GET " + path + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
  std::string answer;
  ssize_t size = send(socket->descriptor, request.data(), request.size(), MSG_NOSIGNAL);
  for (char block[65536]; size > 0; answer.append(block, static_cast<std::size_t>(std::max<ssize_t>(size, 0)))) {
    size = recv(socket->descriptor, block, sizeof block, 0);
  }
  auto const body = answer.find("\r\n\r\n");
  if (size < 0 || !answer.starts_with("HTTP/1.1 200 ") || body == std::string::npos) {
    fail(address, size < 0 ? std::strerror(errno) : answer.substr(0, answer.find('\r')));
  }
  return answer.substr(body + 4);
}

nlohmann::ordered_json statusOf(std::string const& address) {
  auto status = nlohmann::ordered_json::parse(ask(address, "/status.json"), nullptr, false);
  if (!status.contains("streams") || !status.contains("events")) {
    throw StatusError("what answers at " + address + " is no host of Kavo Stream");
  }
  return status;
}
