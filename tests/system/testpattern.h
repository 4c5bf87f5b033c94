// A frame of known colours in every format that the library takes, and a check of
// what a player shows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct Frame {
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> rgb;
};

// A raw frame with red, green, blue and light grey quarters (in reading order),
// made from the formats' definitions.
std::vector<std::uint8_t> testFrame(int hostFormat, int width, int height);

// Empty if every quarter has its colour, except near its edges; otherwise describes the
// first difference.
std::string differences(Frame const& frame);
