#include "formats.h"

#include <algorithm>
#include <cstdio>

#include "cameras.h"

namespace {

constexpr CodecInfo known[] = {
    {kavo::Codec::H264, "H.264", "h264", kavo::sizeLimits(kavo::Codec::H264), 0.1,
     "rtph264depay ! h264parse ! avdec_h264"},
    {kavo::Codec::Jpeg, "JPEG", "jpeg", kavo::sizeLimits(kavo::Codec::Jpeg), 1.2, "rtpjpegdepay ! jpegdec"},
    {kavo::Codec::H265, "H.265", "h265", {}, 0, "rtph265depay ! h265parse ! avdec_h265"},
};
constexpr std::span encodedHere(known, 2);

}  // namespace

std::span<CodecInfo const> codecs() { return encodedHere; }

CodecInfo const& infoOf(kavo::Codec codec) { return *std::ranges::find(known, codec, &CodecInfo::codec); }

std::string textOf(Size size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

Size nearestSize(CodecInfo const& codec, Size size) {
  auto const& limits = codec.limits;
  double const scale =
      std::min({1.0, double(limits.largestWidth) / size.width, double(limits.largestHeight) / size.height});
  auto const fit = [&](int length) {
    return std::max(limits.smallest, static_cast<int>(length * scale) / limits.step * limits.step);
  };
  return {fit(size.width), fit(size.height)};
}

void printFormats() {
  std::printf("Codecs:\n");
  for (CodecInfo const& codec : encodedHere) {
    auto const& limits = codec.limits;
    std::printf("  %-6s %dx%d to %dx%d, in steps of %d\n", codec.name, limits.smallest, limits.smallest,
                limits.largestWidth, limits.largestHeight, limits.step);
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
