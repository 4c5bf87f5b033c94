// Splits the bytes of an RTSP connection into requests and interleaved packets, however they
// arrive. Event-loop thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "server/request.h"

namespace kavo::impl {

class RequestReader {
 public:
  enum class Item { Incomplete, Request, Interleaved, Malformed };

  // In bytes; far more than any client sends.
  static constexpr std::size_t maxHeader = 8192;

  void add(std::string_view bytes) {
    m_Buffer.erase(0, std::exchange(m_Taken, 0));
    m_Buffer.append(bytes);
  }
  // Bytes that have arrived but were not taken yet.
  std::size_t size() const { return rest().size(); }

  // Whether the next item is a (possibly partial) request.
  bool hasRequest() const { return !rest().empty() && rest()[0] != '$'; }
  // Takes the next item. Its content is valid until the next call of this or add().
  // Nothing follows Malformed.
  Item next();

  Request const& request() const { return m_Request; }
  std::uint8_t channel() const { return m_Channel; }
  std::span<std::uint8_t const> packet() const {
    return {reinterpret_cast<std::uint8_t const*>(m_Packet.data()), m_Packet.size()};
  }

 private:
  std::string_view rest() const { return std::string_view(m_Buffer).substr(m_Taken); }
  Item takeInterleaved();
  Item takeRequest();

  std::string m_Buffer;
  std::size_t m_Taken = 0;
  Request m_Request;
  std::string_view m_Packet;  // in the buffer
  std::uint8_t m_Channel = 0;
};

}  // namespace kavo::impl
