// The one exception type of the library. Any thread.
#pragma once

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

}  // namespace kavo::impl
