// The one exception type of the library. Any thread.
#pragma once

#include <exception>
#include <stdexcept>
#include <string>

namespace kavo::impl {

// Error codes; g_ErrorTable maps them to kv_Stream's results.
enum ErrorCode : int {
  ErrorInvalidParameter = 0,
  ErrorResource = 1,
  ErrorCodec = 2,
  ErrorServerNotStarted = 3,
  ErrorAlreadyThere = 4,
  ErrorNameInUse = 5,
  ErrorNoStream = 6,
};

class StreamException : public std::runtime_error {
 public:
  StreamException(std::string const& message, int code) : std::runtime_error(message), m_Code(code) {}
  ~StreamException() override = default;

  int m_Code;
};

// libstdc++ allocates a thread's state for exceptions at its first one, and a process without memory ends there
// unless the program itself was linked with libstdc++. This is called while there is memory.
inline void prepareForExceptions() noexcept {
  [[maybe_unused]] int const volatile pending = std::uncaught_exceptions();
}

}  // namespace kavo::impl
