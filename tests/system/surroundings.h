// The environment of a process: variables, folders and limits that last as long as their objects, files, and
// Unix sockets.
#pragma once

#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

// Sets an environment variable.
class Variable {
 public:
  Variable(char const* name, std::string const& value) : m_Name(name) { setenv(name, value.c_str(), 1); }
  ~Variable() { unsetenv(m_Name); }
  Variable(Variable const&) = delete;
  Variable& operator=(Variable const&) = delete;

 private:
  char const* m_Name;
};

class TemporaryFolder {
 public:
  TemporaryFolder() : m_Path("/tmp/kavo-test-XXXXXX") {
    if (mkdtemp(m_Path.data()) == nullptr) {
      std::abort();
    }
  }
  ~TemporaryFolder() { std::filesystem::remove_all(m_Path); }
  TemporaryFolder(TemporaryFolder const&) = delete;
  TemporaryFolder& operator=(TemporaryFolder const&) = delete;

  std::string file(std::string const& name) const { return m_Path + "/" + name; }

 private:
  std::string m_Path;
};

// Limits the number of open descriptors.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t count) {
    getrlimit(RLIMIT_NOFILE, &m_Before);
    rlimit const limit{count, m_Before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_Before); }
  DescriptorLimit(DescriptorLimit const&) = delete;
  DescriptorLimit& operator=(DescriptorLimit const&) = delete;

 private:
  rlimit m_Before{};
};

inline std::string contentOf(std::string const& file) {
  std::ifstream stream(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(stream), {});
}

// The whole response of the server at the socket; waits at most so many seconds for each part.
inline std::string answerOf(std::string const& path, std::string const& request, int seconds) {
  int const socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  timeval const longest{.tv_sec = seconds, .tv_usec = 0};
  setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &longest, sizeof longest);
  std::string answer;
  // A server without a free place may close the connection before the request is sent.
  if (connect(socket, reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0 &&
      send(socket, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
    char block[4096];
    for (ssize_t size; (size = recv(socket, block, sizeof block, 0)) > 0;) {
      answer.append(block, static_cast<std::size_t>(size));
    }
  }
  close(socket);
  return answer;
}
