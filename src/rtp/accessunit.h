// Access units of H.264 and H.265 from other encoders: checks that they are complete, and
// keeps the parameter sets that a viewer needs for decoding. Any thread, one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace kavo::impl {

// Why bytes are not a frame that can be sent.
class UnusableFrame : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class NalCodec { H264, H265 };

struct AccessUnit {
  int slices = 0;
  bool isKeyFrame = false;
  // The size of the delimiter at the beginning, in bytes; parameter sets belong after it.
  std::size_t delimiter = 0;
  // Whether it contains all kinds of parameter sets, so that a viewer can start with it.
  bool hasParameterSets = false;
};

// The newest parameter sets of a stream: VPS (H.265), SPS and PPS.
class ParameterSets {
 public:
  explicit ParameterSets(NalCodec codec) : m_Codec(codec) {}

  // Throws UnusableFrame unless the bytes are only parameter sets, in Annex B form, at least one of each kind.
  void read(std::span<std::uint8_t const> bytes);
  // Throws UnusableFrame unless the bytes are one access unit in Annex B form. Parameter sets in it
  // replace the known ones of their kind.
  AccessUnit learn(std::span<std::uint8_t const> bytes);

  bool areComplete() const;
  // In Annex B form.
  std::vector<std::uint8_t> bytes() const;

 private:
  using Kinds = std::array<std::vector<std::uint8_t>, 3>;  // with start codes

  AccessUnit parse(std::span<std::uint8_t const> bytes, Kinds& kinds) const;
  static void replace(Kinds& known, Kinds& found);
  static bool areComplete(Kinds const& kinds, NalCodec codec);

  NalCodec const m_Codec;
  Kinds m_Known;
};

}  // namespace kavo::impl
