#include "formats.h"

#include <algorithm>
#include <cstdio>

#include "cameras.h"

namespace {

// JPEG in the steps of 8 that RTP can express.
constexpr CodecInfo known[] = {
    {kavo::Codec::H264, "H.264", {4096, 2304}, 2, 0.1, "rtph264depay ! h264parse ! avdec_h264"},
    {kavo::Codec::Jpeg, "JPEG", {2040, 2040}, 8, 1.2, "rtpjpegdepay ! jpegdec"},
};

constexpr int smallest = 16;

}  // namespace

std::span<CodecInfo const> codecs() { return known; }

std::string textOf(Size size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

Size nearestSize(CodecInfo const& codec, Size size) {
  double const scale =
      std::min({1.0, double(codec.largest.width) / size.width, double(codec.largest.height) / size.height});
  auto const fit = [&](int length) {
    return std::max(smallest, static_cast<int>(length * scale) / codec.step * codec.step);
  };
  return {fit(size.width), fit(size.height)};
}

void printFormats() {
  std::printf("Codecs:\n");
  for (CodecInfo const& codec : known) {
    std::printf("  %-6s %dx%d to %s, in steps of %d\n", codec.name, smallest, smallest, textOf(codec.largest).c_str(),
                codec.step);
  }
  std::printf(
      "Pixel formats that are taken as they are (others are converted to yuv420p):\n"
      "  yuv420p yuvj420p yuv422p yuvj422p rgb24 bgr24 argb rgba abgr bgra\n"
      "Cameras:\n");
  for (Camera const& camera : cameras()) {
    std::printf("  %s (%s)\n", camera.name.c_str(), camera.device.c_str());
  }
  if (cameras().empty()) {
    std::printf("  none on this machine\n");
  }
}
