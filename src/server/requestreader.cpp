#include "server/requestreader.h"

#include <algorithm>
#include <charconv>

#include "server/text.h"

namespace kavo {

namespace {

// The length of the request's body; nothing when it is no number or too large.
std::optional<std::size_t> bodySize(std::string_view header) {
  auto const value = headerValue(header, "Content-Length");
  if (value.empty()) {
    return 0;
  }
  std::size_t size = 0;
  auto const [end, error] = std::from_chars(value.data(), value.data() + value.size(), size);
  bool const whole = error == std::errc() && end == value.data() + value.size();
  return whole && size <= RequestReader::maxBody ? std::optional(size) : std::nullopt;
}

bool beginsLikeARequest(std::string_view text) {
  auto const method = text.substr(0, text.find(' '));
  return !method.empty() && method.size() <= 32 && text.size() > method.size() &&
         std::all_of(method.begin(), method.end(), [](char c) { return (c >= 'A' && c <= 'Z') || c == '_'; });
}

}  // namespace

RequestReader::Item RequestReader::next() {
  // Some clients keep a connection alive with empty lines.
  m_Buffer.erase(0, std::min(m_Buffer.find_first_not_of("\r\n"), m_Buffer.size()));
  if (m_Buffer.empty()) {
    return Item::Incomplete;
  }
  return m_Buffer[0] == '$' ? takeInterleaved() : takeRequest();
}

RequestReader::Item RequestReader::takeInterleaved() {
  auto const byte = [&](std::size_t at) { return static_cast<std::uint8_t>(m_Buffer[at]); };
  if (m_Buffer.size() < 4) {
    return Item::Incomplete;
  }
  std::size_t const size = byte(2) * 256U + byte(3);
  if (m_Buffer.size() < 4 + size) {
    return Item::Incomplete;
  }
  m_Channel = byte(1);
  take(size, 4);
  return Item::Interleaved;
}

RequestReader::Item RequestReader::takeRequest() {
  auto const end = m_Buffer.find("\r\n\r\n");
  if (end > maxHeader) {  // as it is when there is no end yet
    return m_Buffer.size() > maxHeader ? Item::Malformed : Item::Incomplete;
  }
  auto const header = std::string_view(m_Buffer).substr(0, end + 4);
  auto const body = bodySize(header);
  if (!body || !beginsLikeARequest(header) || header.find('\0') != std::string_view::npos) {
    return Item::Malformed;
  }
  if (m_Buffer.size() < header.size() + *body) {
    return Item::Incomplete;
  }
  take(header.size() + *body, 0);
  return Item::Request;
}

void RequestReader::take(std::size_t bytes, std::size_t skipped) {
  m_Text.assign(m_Buffer, skipped, bytes);
  m_Buffer.erase(0, skipped + bytes);
}

std::string_view headerValue(std::string_view request, std::string_view name) {
  for (auto const line : split(request.substr(0, request.find("\r\n\r\n")), '\n')) {
    auto const colon = line.find(':');
    if (colon != std::string_view::npos && equalsIgnoringCase(trimmed(line.substr(0, colon)), name)) {
      return trimmed(line.substr(colon + 1));
    }
  }
  return {};
}

}  // namespace kavo
