// Access units of H.264 and H.265 from an encoder that is not ours: whether one is whole, and
// the parameter sets that a viewer needs before it can decode. Any thread, one at a time.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

namespace kavo::impl {

// Why bytes are no frame that can be sent.
class UnusableFrame : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class NalCodec { H264, H265 };

struct AccessUnit {
  int slices = 0;
  bool isKeyFrame = false;
  // Bytes of a delimiter at its beginning: parameter sets follow it.
  std::size_t delimiter = 0;
  // Whether a viewer can begin with it: all kinds of parameter sets are in it.
  bool hasParameterSets = false;
};

// The newest parameter sets of a stream: VPS (H.265), SPS and PPS.
class ParameterSets {
 public:
  explicit ParameterSets(NalCodec codec) : m_Codec(codec) {}

  // Throws UnusableFrame unless the bytes are parameter sets alone, in Annex B form, of each kind at least one.
  void read(std::span<std::uint8_t const> bytes);
  // Throws UnusableFrame unless the bytes are one access unit in Annex B form. The parameter sets that
  // are in it replace those of their kind.
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
