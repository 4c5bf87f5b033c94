// The command line of kavo-publish.
#pragma once

#include <cstdint>
#include <kavo/stream.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

struct Size {
  int width;
  int height;

  bool operator==(Size const&) const = default;
};

struct Options {
  struct Input {
    std::string source;  // empty: the test pattern
    std::string name;    // of the session
  };
  std::vector<Input> inputs;         // at least one
  std::optional<kavo::Codec> codec;  // default: H.264 if OpenH264 is installed, else JPEG
  std::optional<Size> size;          // of the published frames; default: the input's
  std::optional<int> frameRate;      // of the test pattern, and of inputs that have none
  std::optional<std::int64_t> bitsPerSecond;
  std::uint16_t port = 8554;
  bool copy = false;  // publish encoded frames unchanged
  bool loop = false;
  bool reconnect = false;
  std::optional<double> seconds;  // end after this time
  bool json = false;
};

// The message says, in one line, what is wrong and what to do.
struct Failure : std::runtime_error {
  explicit Failure(std::string const& message, int exitCodeToUse = 1)
      : std::runtime_error(message), exitCode(exitCodeToUse) {}
  int exitCode;
};

// nullopt if it only had to print help, the version or a list. Throws Failure.
std::optional<Options> readOptions(int argc, char** argv);
