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

// Those that are encoded here, in the order in which they are tried; and any that is published.
std::span<CodecInfo const> codecs();
CodecInfo const& infoOf(kavo::Codec codec);

std::string textOf(Size size);

// The nearest size that the codec takes, in the same shape.
Size nearestSize(CodecInfo const& codec, Size size);

void printFormats();
