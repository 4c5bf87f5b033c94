#include "server/requestreader.h"

#include <algorithm>

namespace kavo::impl {

RequestReader::Item RequestReader::next() {
  // Some clients keep a connection alive with empty lines.
  m_Taken += std::min(rest().find_first_not_of("\r\n"), rest().size());
  if (rest().empty()) {
    return Item::Incomplete;
  }
  return rest()[0] == '$' ? takeInterleaved() : takeRequest();
}

RequestReader::Item RequestReader::takeInterleaved() {
  constexpr std::size_t headerSize = 4;
  auto const item = rest();
  auto const byte = [&](std::size_t at) { return static_cast<std::uint8_t>(item[at]); };
  if (item.size() < headerSize) {
    return Item::Incomplete;
  }
  std::size_t const size = byte(2) * 256U + byte(3);
  if (item.size() < headerSize + size) {
    return Item::Incomplete;
  }
  m_Channel = byte(1);
  m_Packet = item.substr(headerSize, size);
  m_Taken += headerSize + size;
  return Item::Interleaved;
}

RequestReader::Item RequestReader::takeRequest() {
  constexpr std::string_view headerEnd = "\r\n\r\n";
  auto const item = rest();
  auto const end = item.find(headerEnd);
  bool const tooLong = std::min(end, item.size()) > maxHeader;
  if (end == std::string_view::npos && !tooLong) {
    return Item::Incomplete;
  }
  std::size_t const headerSize = tooLong ? maxHeader : end + headerEnd.size();
  m_Request = Request::parse(item.substr(0, headerSize));
  if (tooLong || !m_Request.valid) {
    return Item::Malformed;
  }
  if (item.size() < headerSize + m_Request.bodySize) {
    return Item::Incomplete;
  }
  m_Taken += headerSize + m_Request.bodySize;
  return Item::Request;
}

}  // namespace kavo::impl
