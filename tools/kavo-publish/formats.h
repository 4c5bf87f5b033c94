// The codecs that can be published, and their sizes.
#pragma once

#include <kavo/stream.hpp>
#include <span>
#include <string>

#include "options.h"

struct CodecInfo {
  kavo::Codec codec;
  char const* name;
  char const* shortName;  // on the command line and in JSON
  kavo::SizeLimits limits;
  double bitsPerPixel;    // of each frame, without --bitrate
  char const* gstreamer;  // the elements that decode it
};

// The codecs that we encode, in the order in which they are tried; and any codec that can be published.
std::span<CodecInfo const> codecs();
CodecInfo const& infoOf(kavo::Codec codec);

std::string textOf(Size size);

// The nearest size that the codec supports, with the same aspect ratio.
Size nearestSize(CodecInfo const& codec, Size size);

void printFormats();
