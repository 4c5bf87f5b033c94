#include "rtp/jpegimage.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "rtp/accessunit.h"

namespace kavo::impl {

namespace {

namespace marker {
constexpr std::uint8_t baseline = 0xC0;
constexpr std::uint8_t huffmanTables = 0xC4;
constexpr std::uint8_t lastOfFrames = 0xCF;
constexpr std::uint8_t firstRestart = 0xD0;
constexpr std::uint8_t beginOfImage = 0xD8;
constexpr std::uint8_t endOfImage = 0xD9;
constexpr std::uint8_t beginOfScan = 0xDA;
constexpr std::uint8_t quantizationTables = 0xDB;
constexpr std::uint8_t restartInterval = 0xDD;
}  // namespace marker

void require(bool condition, char const* reason) {
  if (!condition) {
    throw UnusableFrame(reason);
  }
}

std::size_t pairAt(std::span<std::uint8_t const> bytes, std::size_t at) { return bytes[at] * 256U + bytes[at + 1]; }

// The tables that receivers assume (JPEG, annex K.3): class and id, the number of codes of each length,
// then the values.
constexpr std::uint8_t yDc[] = {0x00, 0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0,  0, 0,
                                0,    0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr std::uint8_t chromaDc[] = {0x01, 0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0,  0, 0,
                                     0,    0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr std::uint8_t yAc[] = {
    0x10, 0,    2,    1,    3,    3,    2,    4,    3,    5,    5,    4,    4,    0,    0,    1,    0x7D, 0x01,
    0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61, 0x07, 0x22, 0x71, 0x14,
    0x32, 0x81, 0x91, 0xA1, 0x08, 0x23, 0x42, 0xB1, 0xC1, 0x15, 0x52, 0xD1, 0xF0, 0x24, 0x33, 0x62, 0x72, 0x82,
    0x09, 0x0A, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x25, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x34, 0x35, 0x36, 0x37, 0x38,
    0x39, 0x3A, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4A, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A,
    0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6A, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x83, 0x84,
    0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9A, 0xA2, 0xA3, 0xA4,
    0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6, 0xB7, 0xB8, 0xB9, 0xBA, 0xC2, 0xC3, 0xC4,
    0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xCA, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8, 0xD9, 0xDA, 0xE1, 0xE2, 0xE3,
    0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xEA, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA};
constexpr std::uint8_t chromaAc[] = {
    0x11, 0,    2,    1,    2,    4,    4,    3,    4,    7,    5,    4,    4,    0,    1,    2,    0x77, 0x00,
    0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61, 0x71, 0x13, 0x22, 0x32,
    0x81, 0x08, 0x14, 0x42, 0x91, 0xA1, 0xB1, 0xC1, 0x09, 0x23, 0x33, 0x52, 0xF0, 0x15, 0x62, 0x72, 0xD1, 0x0A,
    0x16, 0x24, 0x34, 0xE1, 0x25, 0xF1, 0x17, 0x18, 0x19, 0x1A, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x35, 0x36, 0x37,
    0x38, 0x39, 0x3A, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48, 0x49, 0x4A, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59,
    0x5A, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6A, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x82,
    0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99, 0x9A, 0xA2,
    0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6, 0xB7, 0xB8, 0xB9, 0xBA, 0xC2,
    0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xCA, 0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8, 0xD9, 0xDA, 0xE2,
    0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8, 0xE9, 0xEA, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA};
constexpr std::span<std::uint8_t const> standardTables[] = {yDc, chromaDc, yAc, chromaAc};

void requireStandardTables(std::span<std::uint8_t const> segment) {
  while (!segment.empty()) {
    auto const same = std::ranges::find_if(standardTables, [&](auto const& table) {
      return table.size() <= segment.size() && std::ranges::equal(table, segment.first(table.size()));
    });
    require(same != std::end(standardTables),
            "its Huffman tables are not the standard ones, which are all that RTP can say");
    segment = segment.subspan(same->size());
  }
}

}  // namespace

JpegImage::JpegImage(Bytes bytes) {
  require(bytes.size() > 4 && bytes[0] == 0xFF && bytes[1] == marker::beginOfImage,
          "it does not begin as a JPEG image");
  bytes = bytes.subspan(2);
  for (std::uint8_t type = 0; type != marker::beginOfScan;) {
    while (bytes.size() > 1 && bytes[0] == 0xFF && bytes[1] == 0xFF) {  // fill bytes
      bytes = bytes.subspan(1);
    }
    require(bytes.size() > 4 && bytes[0] == 0xFF, "its header is damaged");
    type = bytes[1];
    std::size_t const length = pairAt(bytes, 2);
    require(length >= 2 && length + 2 <= bytes.size(), "its header is cut short");
    readSegment(type, bytes.subspan(4, length - 2));
    bytes = bytes.subspan(length + 2);
  }
  readScan(bytes);
}

void JpegImage::readSegment(std::uint8_t type, Bytes segment) {
  switch (type) {
    case marker::baseline:
      return readFrameHeader(segment);
    case marker::huffmanTables:
      return requireStandardTables(segment);
    case marker::quantizationTables:
      return readQuantizationTables(segment);
    case marker::beginOfScan:
      return readScanHeader(segment);
    case marker::restartInterval:
      require(segment.size() == 2, "its restart interval is damaged");
      m_Frame.restartInterval = static_cast<std::uint16_t>(pairAt(segment, 0));
      return;
    default:
      require(type > marker::lastOfFrames || type < marker::baseline, "it is not baseline JPEG");
      require(type < marker::firstRestart || type > marker::endOfImage, "its header is damaged");
  }
}

void JpegImage::readQuantizationTables(Bytes segment) {
  while (!segment.empty()) {
    require(segment[0] >> 4 == 0, "its quantization tables have 16 bits");
    require(segment[0] < m_TablesById.size() && segment.size() > tableSize, "its quantization tables are damaged");
    m_TablesById[segment[0]] = segment.subspan(1, tableSize);
    segment = segment.subspan(1 + tableSize);
  }
}

void JpegImage::readFrameHeader(Bytes segment) {
  constexpr std::size_t size = 15;
  require(m_Frame.width == 0, "it has several frames");
  require(segment.size() >= 6 && segment[0] == 8, "it does not have 8 bits");
  require(segment.size() == size && segment[5] == m_Components.size(),
          "it is not 4:2:0 or 4:2:2: not three components");
  std::size_t const height = pairAt(segment, 1);
  std::size_t const width = pairAt(segment, 3);
  if (width == 0 || height == 0 || width % 8 != 0 || height % 8 != 0 || width > 2040 || height > 2040) {
    throw UnusableFrame("its size is " + std::to_string(width) + "x" + std::to_string(height) +
                        ": RTP takes steps of 8, up to 2040x2040");
  }
  m_Frame.width = static_cast<std::uint8_t>(width / 8);
  m_Frame.height = static_cast<std::uint8_t>(height / 8);
  for (std::size_t i = 0; i < m_Components.size(); ++i) {
    m_Components[i] = {segment[6 + 3 * i], segment[7 + 3 * i], segment[8 + 3 * i]};
  }
  auto const& [y, cb, cr] = m_Components;
  bool const is420 = y.sampling == 0x22;
  require((is420 || y.sampling == 0x21) && cb.sampling == 0x11 && cr.sampling == 0x11, "it is not 4:2:0 or 4:2:2");
  require(cb.table == cr.table, "Cb and Cr have different quantization tables");
  m_Frame.type = is420 ? 1 : 0;
}

// Receivers assume that Y uses the tables 0, and Cb and Cr the tables 1.
void JpegImage::readScanHeader(Bytes segment) {
  constexpr std::size_t size = 10;
  require(m_Frame.width != 0 && segment.size() == size && segment[0] == m_Components.size(),
          "it has several scans, or no frame");
  for (std::size_t i = 0; i < m_Components.size(); ++i) {
    require(segment[1 + 2 * i] == m_Components[i].id && segment[2 + 2 * i] == (i == 0 ? 0x00 : 0x11),
            "its components are in another order, or have other Huffman tables");
  }
  require(segment[7] == 0 && segment[8] == 63 && segment[9] == 0, "it is not baseline JPEG");
  for (std::size_t i = 0; i < 2; ++i) {
    auto const table = m_Components[i].table;
    require(table < m_TablesById.size() && !m_TablesById[table].empty(), "it has no quantization tables");
    std::ranges::copy(m_TablesById[table], m_Tables.begin() + static_cast<std::ptrdiff_t>(i * tableSize));
  }
  constexpr std::uint8_t tablesInBand = 255;
  m_Frame.q = tablesInBand;
  m_Frame.tables = m_Tables;
}

// Reads up to the end of the image; anything after it is padding.
void JpegImage::readScan(Bytes scan) {
  constexpr std::uint8_t withRestarts = 64;
  m_Frame.type = static_cast<std::uint8_t>(m_Frame.type + (m_Frame.restartInterval > 0 ? withRestarts : 0));
  std::uint8_t restarts = 0;
  for (std::size_t at = 0; at + 1 < scan.size(); ++at) {
    auto const* const found =
        static_cast<std::uint8_t const*>(std::memchr(scan.data() + at, 0xFF, scan.size() - 1 - at));
    if (found == nullptr) {
      break;
    }
    at = static_cast<std::size_t>(found - scan.data());
    std::uint8_t const next = scan[at + 1];
    if (next == marker::endOfImage) {
      require(at > 0, "it has no picture");
      m_Frame.scan = scan.first(at + 2);
      return;
    }
    bool const isRestart = next == marker::firstRestart + restarts % 8;
    require(next == 0 || next == 0xFF || (isRestart && m_Frame.restartInterval > 0), "its picture is damaged");
    restarts = static_cast<std::uint8_t>(restarts + (isRestart ? 1 : 0));
  }
  throw UnusableFrame("it is cut short: there is no end of image");
}

}  // namespace kavo::impl
