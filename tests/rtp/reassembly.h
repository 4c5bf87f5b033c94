// Reassembles a frame from its packets, for tests and fuzzers. Written from the RFCs,
// without looking at the packetizers; every deviation throws.
#pragma once

#include <algorithm>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace reassembly {

using Bytes = std::vector<std::uint8_t>;

inline void require(bool condition, char const* what) {
  if (!condition) {
    throw std::runtime_error(what);
  }
}

inline std::uint32_t numberAt(std::span<std::uint8_t const> bytes, std::size_t at, int size) {
  std::uint32_t number = 0;
  for (int i = 0; i < size; ++i) {
    number = number << 8 | bytes[at + static_cast<std::size_t>(i)];
  }
  return number;
}

// The NAL units: RFC 6184, or RFC 7798 for headers of two bytes.
inline std::vector<Bytes> nalUnitsOf(std::vector<Bytes> const& payloads, std::size_t headerSize = 1) {
  std::vector<Bytes> nalUnits;
  bool open = false;
  auto const header = static_cast<std::ptrdiff_t>(headerSize);
  for (Bytes const& payload : payloads) {
    require(payload.size() >= headerSize, "a NAL unit without a header");
    bool const isFragment = headerSize == 1 ? (payload[0] & 0x1F) == 28 : (payload[0] >> 1 & 0x3F) == 49;
    if (!isFragment) {
      require(!open, "fragments without an end");
      nalUnits.push_back(payload);
      continue;
    }
    require(payload.size() > headerSize + 1, "an empty fragment");
    std::uint8_t const fu = payload[headerSize];
    bool const start = (fu & 0x80) != 0;
    bool const end = (fu & 0x40) != 0;
    Bytes first(payload.begin(), payload.begin() + header);
    first[0] = static_cast<std::uint8_t>(headerSize == 1 ? (payload[0] & 0xE0) | (fu & 0x1F)
                                                         : (payload[0] & 0x81) | (fu & 0x3F) << 1);
    require(start != open && !(start && end), "fragments out of order");
    if (start) {
      nalUnits.push_back(first);
    }
    require(std::equal(first.begin(), first.end(), nalUnits.back().begin()), "fragments of different NAL units");
    nalUnits.back().insert(nalUnits.back().end(), payload.begin() + header + 1, payload.end());
    open = !end;
  }
  require(!open, "fragments without an end");
  return nalUnits;
}

struct Jpeg {
  Bytes header;  // type, Q, width, height
  std::uint32_t restartInterval = 0;
  Bytes tables;
  Bytes scan;
};

// The image: RFC 2435.
inline Jpeg jpegOf(std::vector<Bytes> const& payloads) {
  Jpeg image;
  for (Bytes const& payload : payloads) {
    require(payload.size() > 8, "a header without data");
    require(numberAt(payload, 1, 3) == image.scan.size(), "a fragment offset that does not follow");
    Bytes const header(payload.begin() + 4, payload.begin() + 8);
    require(image.scan.empty() || header == image.header, "fragments with different headers");
    image.header = header;
    std::size_t at = 8;
    if (payload[4] >= 64) {
      image.restartInterval = numberAt(payload, at, 2);
      require(numberAt(payload, at + 2, 2) == 0xFFFF, "restart markers at which packets do not begin");
      at += 4;
    }
    if (image.scan.empty() && payload[5] >= 128) {
      std::size_t const length = numberAt(payload, at + 2, 2);
      auto const tables = payload.begin() + static_cast<std::ptrdiff_t>(at + 4);
      at += 4 + length;
      require(at < payload.size(), "tables without data");
      image.tables.assign(tables, tables + static_cast<std::ptrdiff_t>(length));
    }
    image.scan.insert(image.scan.end(), payload.begin() + static_cast<std::ptrdiff_t>(at), payload.end());
  }
  return image;
}

}  // namespace reassembly
