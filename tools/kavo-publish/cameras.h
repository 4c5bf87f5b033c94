// The cameras of this machine, by the names that their drivers give them.
#pragma once

#include <string>
#include <vector>

struct Camera {
  std::string name;
  std::string device;  // such as /dev/video0
};

std::vector<Camera> cameras();

// The device of camera:NAME, or the source itself if it is none. Throws Failure.
std::string deviceOf(std::string const& source);
