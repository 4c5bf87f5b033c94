// Helpers for parsing RTSP text. Any thread.
#pragma once

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

namespace kavo::impl {

inline bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

inline bool startsWithIgnoringCase(std::string_view text, std::string_view start) {
  return equalsIgnoringCase(text.substr(0, start.size()), start);
}

inline std::string_view trimmed(std::string_view text) {
  constexpr std::string_view space = " \t\r\n";
  auto const first = text.find_first_not_of(space);
  return first == std::string_view::npos ? std::string_view()
                                         : text.substr(first, text.find_last_not_of(space) - first + 1);
}

// The parts between separators, trimmed.
inline std::vector<std::string_view> split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  while (true) {
    auto const end = text.find(separator);
    parts.push_back(trimmed(text.substr(0, end)));
    if (end == std::string_view::npos) {
      return parts;
    }
    text.remove_prefix(end + 1);
  }
}

}  // namespace kavo::impl
