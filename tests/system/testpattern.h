// A frame of known colours, in every format that the library takes, and the
// check of what a player made of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Frame {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgb;
};

// Red, green, blue and light grey quarters (in reading order) as one raw frame,
// made by hand from the formats' definitions.
std::vector<std::uint8_t> testFrame(int hostFormat, int width, int height);

// Empty if every quarter has its colour from its middle out to near its edges;
// otherwise what is wrong.
std::string differences(Frame const& frame);
