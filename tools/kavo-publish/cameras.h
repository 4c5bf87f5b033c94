// The cameras of this machine, by the names that their drivers give them.
#pragma once

#include <string>
#include <vector>

struct Camera {
  std::string name;
  std::string device;  // such as /dev/video0
};

std::vector<Camera> cameras();

// The device for camera:NAME; any other source is returned unchanged. Throws Failure.
std::string deviceOf(std::string const& source);
