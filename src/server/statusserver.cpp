#include "server/statusserver.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

#include "base/address.h"
#include "eventloop/contained.h"
#include "server/httprequest.h"

namespace kavo::impl {

namespace {

constexpr std::size_t mostClients = 8;
constexpr std::size_t longestRequest = 8192;
constexpr std::chrono::seconds timeLimit{5};

// Invalid, with errno set, on failure.
UniqueFd listenAt(sockaddr const* address, socklen_t size) {
  UniqueFd socket(::socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (socket.get() < 0) {
    return socket;
  }
  int const on = 1;
  setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  bool const isReady = fchmod(socket.get(), 0600) == 0 && bind(socket.get(), address, size) == 0 &&
                       listen(socket.get(), mostClients) == 0;
  return isReady ? std::move(socket) : UniqueFd();
}

UniqueFd listenOnPath(std::string const& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    errno = ENAMETOOLONG;
    return UniqueFd();
  }
  path.copy(address.sun_path, path.size());
  struct stat before{};
  if (lstat(path.c_str(), &before) == 0 && S_ISSOCK(before.st_mode)) {
    unlink(path.c_str());  // left by a process that was killed
  }
  return listenAt(reinterpret_cast<sockaddr const*>(&address), sizeof address);
}

UniqueFd listenOnPort(std::string const& text) {
  auto const colon = text.rfind(':');
  unsigned port = 0;
  bool const isNumber =
      colon != std::string::npos &&
      std::from_chars(text.data() + colon + 1, text.data() + text.size(), port).ptr == text.data() + text.size();
  bool const bracketed = text.starts_with('[') && text.find("]:") + 1 == colon;
  auto address = bracketed ? localAddress(AF_INET6, text.substr(1, colon - 2))
                           : localAddress(AF_INET, text.substr(0, std::min(colon, text.size())));
  if (!isNumber || port == 0 || port > 65535 || !address) {
    errno = EINVAL;
    return UniqueFd();
  }
  portOf(*address) = htons(static_cast<std::uint16_t>(port));
  return listenAt(reinterpret_cast<sockaddr const*>(&*address), sizeOf(*address));
}

}  // namespace

struct StatusServer::Connection {
  UniqueFd socket;
  DescriptorBudget::Share descriptor;
  SocketWatch watch;
  Timer limit;
  std::string request;
  std::string answer;
};

std::unique_ptr<StatusServer> StatusServer::createNew(TaskScheduler& scheduler, std::string address,
                                                      std::shared_ptr<DescriptorBudget> descriptors,
                                                      std::function<ServerFigures()> figures) {
  bool const isPath = address.find('/') != std::string::npos;
  if (auto const at = address.find("%p"); isPath && at != std::string::npos) {
    address.replace(at, 2, std::to_string(getpid()));
  }
  auto socket = isPath ? listenOnPath(address) : listenOnPort(address);
  if (socket.get() < 0) {
    int const error = errno;
    std::fprintf(stderr, "kavo_stream: cannot answer at KAVO_STREAM_STATUS=%s: %s\n", address.c_str(),
                 error == EINVAL ? "must be an address and a port, or a path" : std::strerror(error));
    return nullptr;
  }
  return std::unique_ptr<StatusServer>(new StatusServer(scheduler, std::move(socket), isPath ? address : "",
                                                        std::move(descriptors), std::move(figures)));
}

StatusServer::StatusServer(TaskScheduler& scheduler, UniqueFd socket, std::string path,
                           std::shared_ptr<DescriptorBudget> descriptors, std::function<ServerFigures()> figures)
    : m_Scheduler(scheduler),
      m_Socket(std::move(socket)),
      m_Path(std::move(path)),
      m_Descriptors(std::move(descriptors)),
      m_Figures(std::move(figures)),
      m_Watch(scheduler, m_Socket.get(), [this](int) KAVO_REQUIRES(eventLoopRole) { accept(); }),
      m_AcceptAgain(scheduler, [this]() KAVO_REQUIRES(eventLoopRole) { m_Watch.start(SOCKET_READABLE); }) {
  m_Watch.start(SOCKET_READABLE);
}

StatusServer::~StatusServer() {
  if (!m_Path.empty()) {
    unlink(m_Path.c_str());
  }
}

// Connections beyond the limit are closed at once. If the process is out of descriptors, they stay in
// the backlog: without a pause the loop would spin.
void StatusServer::accept() {
  UniqueFd client(accept4(m_Socket.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (client.get() < 0) {
    m_Watch.stop();
    m_AcceptAgain.start(std::chrono::milliseconds(100));
    return;
  }
  auto share = m_Connections.size() < mostClients ? m_Descriptors->take(1) : std::nullopt;
  if (!share) {
    return;
  }
  auto& place = m_Connections.emplace_back();
  int const socket = client.get();
  auto const ready = [this, &place](int conditions) KAVO_REQUIRES(eventLoopRole) {
    Connection& connection = *place;
    if (!contained([&]() KAVO_REQUIRES(eventLoopRole) { handle(connection, conditions); })) {
      end(connection);
    }
  };
  try {
    place.reset(new Connection{std::move(client),
                               std::move(*share),
                               {m_Scheduler, socket, ready},
                               {m_Scheduler, [this, &place]() KAVO_REQUIRES(eventLoopRole) { end(*place); }},
                               {},
                               {}});
    place->watch.start(SOCKET_READABLE);
    place->limit.start(timeLimit);
  } catch (...) {
    m_Connections.pop_back();
    throw;
  }
}

void StatusServer::handle(Connection& connection, int conditions) {
  if ((conditions & SOCKET_READABLE) != 0 && connection.answer.empty()) {
    std::array<char, longestRequest> bytes;
    ssize_t const size = recv(connection.socket.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
    if (size <= 0) {
      end(connection);
      return;
    }
    connection.request.append(bytes.data(), static_cast<std::size_t>(size));
    bool const isWhole = connection.request.find("\r\n\r\n") != std::string::npos;
    if (!isWhole && connection.request.size() <= longestRequest) {
      return;
    }
    connection.answer = answerTo(isWhole ? connection.request : "");
  }
  std::string& answer = connection.answer;
  ssize_t const sent = send(connection.socket.get(), answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  answer.erase(0, static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
  if (answer.empty() || (sent < 0 && errno != EAGAIN)) {
    end(connection);
  } else {
    connection.watch.start(SOCKET_WRITABLE);
  }
}

std::string StatusServer::answerTo(std::string_view header) {
  struct {
    char const* path;
    char const* type;
    std::string (*body)(ServerFigures const&);
  } const pages[] = {
      {"/", "text/html; charset=utf-8", [](ServerFigures const&) { return std::string(statusPage); }},
      {"/status.json", "application/json", statusAsJson},
      {"/metrics", "text/plain; version=0.0.4; charset=utf-8", statusAsMetrics},
  };
  HttpRequest const request = HttpRequest::parse(header);
  std::string status(request.status);
  std::string type = "text/plain";
  std::string body = status + "\n";
  if (status.starts_with("200")) {
    auto const* const page =
        std::find_if(std::begin(pages), std::end(pages), [&](auto const& entry) { return request.path == entry.path; });
    bool const exists = page != std::end(pages);
    status = exists ? status : "404 Not Found";
    type = exists ? page->type : type;
    body = exists ? page->body(m_Figures()) : status + "\n";
  }
  return "HTTP/1.1 " + status + "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\nCache-Control: no-store\r\nX-Content-Type-Options: nosniff\r\nConnection: close\r\n" +
         (status.starts_with("405") ? "Allow: GET, HEAD\r\n" : "") + "\r\n" + (request.wantsBody ? body : "");
}

void StatusServer::end(Connection& connection) {
  m_Connections.remove_if([&](auto const& entry) { return entry.get() == &connection; });
}

}  // namespace kavo::impl
