#include "system/testpattern.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

namespace {

using Colour = std::array<int, 3>;

constexpr Colour quarters[4] = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {200, 200, 200}};

Colour const& colourAt(int x, int y, int width, int height) {
  return quarters[(y * 2 >= height ? 2 : 0) + (x * 2 >= width ? 1 : 0)];
}

// ITU-R BT.601.
Colour yuvOf(Colour const& c, bool fullRange) {
  double const y = 0.299 * c[0] + 0.587 * c[1] + 0.114 * c[2];
  double const cb = (c[2] - y) / 1.772;
  double const cr = (c[0] - y) / 1.402;
  auto const rounded = [](double value) { return std::clamp(static_cast<int>(std::lround(value)), 0, 255); };
  return fullRange ? Colour{rounded(y), rounded(128 + cb), rounded(128 + cr)}
                   : Colour{rounded(16 + y * 219 / 255), rounded(128 + cb * 224 / 255), rounded(128 + cr * 224 / 255)};
}

// The position of red, green, blue and (from 4 bytes on) alpha in a pixel.
struct Packed {
  int format, bytes, red, green, blue, alpha;
};
constexpr Packed packedFormats[] = {
    {2, 3, 0, 1, 2, -1}, {3, 3, 2, 1, 0, -1}, {27, 4, 1, 2, 3, 0},
    {28, 4, 0, 1, 2, 3}, {29, 4, 3, 2, 1, 0}, {30, 4, 2, 1, 0, 3},
};

std::vector<std::uint8_t> planarFrame(bool fullRange, bool halfHeight, int width, int height) {
  std::vector<std::uint8_t> frame;
  for (int plane = 0; plane < 3; ++plane) {
    int const stepX = plane == 0 ? 1 : 2;
    int const stepY = plane == 0 || !halfHeight ? 1 : 2;
    for (int y = 0; y < height; y += stepY) {
      for (int x = 0; x < width; x += stepX) {
        auto const yuv = yuvOf(colourAt(x, y, width, height), fullRange);
        frame.push_back(static_cast<std::uint8_t>(yuv[static_cast<std::size_t>(plane)]));
      }
    }
  }
  return frame;
}

std::vector<std::uint8_t> packedFrame(Packed const& layout, int width, int height) {
  std::vector<std::uint8_t> frame;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      auto const& colour = colourAt(x, y, width, height);
      std::array<std::uint8_t, 4> pixel{};
      pixel[static_cast<std::size_t>(layout.red)] = static_cast<std::uint8_t>(colour[0]);
      pixel[static_cast<std::size_t>(layout.green)] = static_cast<std::uint8_t>(colour[1]);
      pixel[static_cast<std::size_t>(layout.blue)] = static_cast<std::uint8_t>(colour[2]);
      if (layout.alpha >= 0) {
        pixel[static_cast<std::size_t>(layout.alpha)] = 255;
      }
      frame.insert(frame.end(), pixel.begin(), pixel.begin() + layout.bytes);
    }
  }
  return frame;
}

}  // namespace

std::vector<std::uint8_t> testFrame(int hostFormat, int width, int height) {
  for (auto const& layout : packedFormats) {
    if (layout.format == hostFormat) {
      return packedFrame(layout, width, height);
    }
  }
  bool const fullRange = hostFormat == 12 || hostFormat == 13;
  bool const halfHeight = hostFormat == 0 || hostFormat == 12;
  return planarFrame(fullRange, halfHeight, width, height);
}

std::string differences(Frame const& frame) {
  // Lossy coding and limited-range JPEG change colours by up to about 25 steps.
  constexpr int tolerance = 45;
  int const margin = std::max(34, frame.width / 16);
  for (int y = 0; y < frame.height; ++y) {
    for (int x = 0; x < frame.width; ++x) {
      // Colours may mix near the border of two quarters, and more so in an enlarged frame.
      if (std::abs(x * 2 - frame.width) < margin || std::abs(y * 2 - frame.height) < margin) {
        continue;
      }
      auto const& expected = colourAt(x, y, frame.width, frame.height);
      auto const* pixel = &frame.rgb[static_cast<std::size_t>(y * frame.width + x) * 3];
      for (int i = 0; i < 3; ++i) {
        if (std::abs(pixel[i] - expected[static_cast<std::size_t>(i)]) > tolerance) {
          return "at " + std::to_string(x) + "," + std::to_string(y) + " is (" + std::to_string(pixel[0]) + "," +
                 std::to_string(pixel[1]) + "," + std::to_string(pixel[2]) + "), should be (" +
                 std::to_string(expected[0]) + "," + std::to_string(expected[1]) + "," + std::to_string(expected[2]) +
                 ")";
        }
      }
    }
  }
  return "";
}
