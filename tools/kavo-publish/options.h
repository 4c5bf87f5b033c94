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
    std::string name;    // of its session
  };
  std::vector<Input> inputs;         // at least one
  std::optional<kavo::Codec> codec;  // without one, H.264 where OpenH264 is, else JPEG
  std::optional<Size> size;          // of the published frame; without one, the input's
  std::optional<int> frameRate;      // of the test pattern and of inputs without one
  std::optional<std::int64_t> bitsPerSecond;
  std::uint16_t port = 8554;
  bool copy = false;  // encoded frames are published as they are
  bool loop = false;
  bool reconnect = false;
  std::optional<double> seconds;  // end after this time
  bool json = false;
};

// What is wrong and what to do, in one line.
struct Failure : std::runtime_error {
  explicit Failure(std::string const& message, int exitCodeToUse = 1)
      : std::runtime_error(message), exitCode(exitCodeToUse) {}
  int exitCode;
};

// Nothing when only help, the version or a list was asked for (and printed). Throws Failure.
std::optional<Options> readOptions(int argc, char** argv);
