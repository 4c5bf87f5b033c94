#include "cameras.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "options.h"

std::vector<Camera> cameras() {
  std::vector<Camera> found;
  std::error_code none;  // no directory, no cameras
  for (auto const& entry : std::filesystem::directory_iterator("/sys/class/video4linux", none)) {
    std::ifstream file(entry.path() / "name");
    std::string name;
    std::getline(file, name);
    found.push_back({name, "/dev/" + entry.path().filename().string()});
  }
  std::sort(found.begin(), found.end(), [](Camera const& a, Camera const& b) { return a.device < b.device; });
  return found;
}

std::string deviceOf(std::string const& source) {
  constexpr std::string_view scheme = "camera:";
  if (!source.starts_with(scheme)) {
    return source;
  }
  std::string const name = source.substr(scheme.size());
  std::string others;
  for (Camera const& camera : cameras()) {
    if (camera.name.find(name) != std::string::npos) {
      return camera.device;  // a camera's first device is the one with frames
    }
    others += (others.empty() ? "" : ", ") + ("'" + camera.name + "'");
  }
  throw Failure("no camera has '" + name +
                "' in its name: " + (others.empty() ? "this machine has none" : "there are " + others));
}
