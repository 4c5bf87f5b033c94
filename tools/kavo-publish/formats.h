// The codecs that can be published, and their sizes.
#pragma once

#include <kavo/stream.hpp>
#include <span>
#include <string>

#include "options.h"

struct CodecInfo {
  kavo::Codec codec;
  char const* name;
  kavo::SizeLimits limits;
  double bitsPerPixel;    // of each frame, without --bitrate
  char const* gstreamer;  // the elements that decode it
};

// In the order in which they are tried.
std::span<CodecInfo const> codecs();

std::string textOf(Size size);

// The nearest size that the codec takes, in the same shape.
Size nearestSize(CodecInfo const& codec, Size size);

void printFormats();
