// Cuts what a client sends on its RTSP connection into requests and interleaved
// packets, however it arrives. Event-loop thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kavo {

class RequestReader {
 public:
  enum class Item { Incomplete, Request, Interleaved, Malformed };

  // Far more than any client sends, and less than live555's buffer holds.
  static constexpr std::size_t maxHeader = 8192;
  static constexpr std::size_t maxBody = 8192;

  void add(std::string_view bytes) { m_Buffer.append(bytes); }
  // Bytes that have arrived and were not taken yet.
  std::size_t size() const { return m_Buffer.size(); }

  // Whether (a part of) a request has arrived and comes next.
  bool hasRequest() const { return !m_Buffer.empty() && m_Buffer[0] != '$'; }
  // What comes next. The text of a request, or the payload of an interleaved
  // packet, is valid until the next call. After Malformed there is no going on.
  Item next();

  std::string_view text() const { return m_Text; }
  std::uint8_t channel() const { return m_Channel; }
  // The request's first word.
  std::string_view method() const { return std::string_view(m_Text).substr(0, m_Text.find(' ')); }

 private:
  Item takeInterleaved();
  Item takeRequest();
  void take(std::size_t bytes, std::size_t skipped);

  std::string m_Buffer;
  std::string m_Text;
  std::uint8_t m_Channel = 0;
};

// The value of a header, of all headers before an empty line; empty without one.
std::string_view headerValue(std::string_view request, std::string_view name);

}  // namespace kavo
