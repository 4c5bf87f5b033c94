// Feeds arbitrary bytes to a function that reads what others send or submit. --unit=NAME chooses the function.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "rtp/accessunit.h"
#include "rtp/jpegheader.h"
#include "rtp/jpegimage.h"
#include "rtp/jpegpacketizer.h"
#include "rtp/nalpacketizer.h"
#include "rtp/packets.h"
#include "rtp/rtcp.h"
#include "server/httprequest.h"
#include "server/requestreader.h"
#include "server/transport.h"

namespace {

using namespace kavo::impl;
using reassembly::Bytes;
using reassembly::nalUnitsIn;
using reassembly::require;
using Input = std::span<std::uint8_t const>;

std::string_view textOf(Input input) { return {reinterpret_cast<char const*>(input.data()), input.size()}; }

void jpegHeader(Input input) { require(readJpegHeader(input).length <= input.size(), "a header that has no end"); }

void rtcp(Input input) { readReceiverReport(input, 0x01010101); }

// An accepted transport has two ports, or two channels in live555's range.
void transport(Input input) {
  auto const accepted = acceptableTransport(textOf(input));
  require(!accepted ||
              (accepted->interleaved ? accepted->rtp <= 254 && accepted->rtcp <= 254 && accepted->rtp != accepted->rtcp
                                     : accepted->rtp != 0 && accepted->rtcp != 0),
          "a transport without ports or channels");
}

// An accepted request has a path and a host.
void httpRequest(Input input) {
  std::string const text(textOf(input));
  auto const request = HttpRequest::parse(text);
  require(request.status != "200 OK" || (request.path.starts_with('/') && request.path.find('?') == std::string::npos &&
                                         text.find_first_of("Hh") != std::string::npos),
          "a request without a path or a host");
}

std::size_t count(std::string_view text, std::string_view word) {
  std::size_t found = 0;
  for (auto at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    ++found;
  }
  return found;
}

// The rebuilt request fits live555's buffer, has each header once and no body.
void checkRequest(Request const& request) {
  auto const text = request.text();
  auto const headers = text.substr(text.find("\r\n"));
  require(text.ends_with("\r\n\r\n") && count(text, "\r\n\r\n") == 1, "not one request");
  require(count(text, " RTSP/1.0\r\n") == 1 && count(text, "RTSP/") == 1, "not one request line");
  require(text.size() <= 1000 && text.find('\0') == std::string::npos, "a request that live555 cannot hold");
  require(count(headers, "CSeq:") == 1 && count(headers, "Session:") <= 1, "a header twice");
  require(count(headers, "Content-Length:") == 0, "a body");
  require(request.cseq.find_first_not_of("0123456789") == std::string::npos, "a CSeq that is no number");
}

// What the reader makes of the bytes if they arrive in pieces of this size.
std::vector<std::string> itemsOf(std::string_view all, std::size_t piece) {
  RequestReader reader;
  std::vector<std::string> items;
  for (std::size_t at = 0; at < all.size(); at += piece) {
    reader.add(all.substr(at, piece));
    for (auto item = reader.next(); item != RequestReader::Item::Incomplete; item = reader.next()) {
      if (item == RequestReader::Item::Malformed) {
        items.emplace_back("malformed");
        return items;
      }
      if (item == RequestReader::Item::Request) {
        checkRequest(reader.request());
        items.push_back(reader.request().text());
      } else {
        items.emplace_back(reader.packet().begin(), reader.packet().end());
      }
    }
  }
  return items;
}

void requestReader(Input input) {
  std::size_t const piece = input.empty() ? 1 : input[0] % 64 + 1;
  require(itemsOf(textOf(input), piece) == itemsOf(textOf(input), input.size() + 1), "it matters how bytes arrive");
}

// Requires that a reader of the packets reassembles the NAL units. Returns whether decoding can start with them.
bool checkPackets(bool isH265, Input accessUnit, std::size_t maxPacket) {
  bool isKey = false;
  auto const payloads = reassembly::payloadsOf(maxPacket, [&](FramePackets& packets) {
    isKey = (isH265 ? packetizeH265 : packetizeH264)(accessUnit, maxPacket, packets);
  });
  require(reassembly::nalUnitsOf(payloads, isH265 ? 2 : 1) == nalUnitsIn(accessUnit), "other NAL units");
  return isKey;
}

void nalPacketizer(Input input) {
  if (input.size() < 2) {
    return;
  }
  bool const isH265 = input[1] >= 128;
  auto const accessUnit = input.subspan(2);
  bool const isReadable = std::ranges::none_of(
      nalUnitsIn(accessUnit), [&](Bytes const& unit) {  // no header, or the type of a fragmentation unit
        return isH265 ? unit.size() < 2 || (unit[0] >> 1 & 0x3F) == 49 : (unit[0] & 0x1F) == 28;
      });
  if (isReadable) {
    checkPackets(isH265, accessUnit, 20 + input[0] * 5U + input[1] % 5);
  }
}

void checkImage(JpegFrame const& frame, std::size_t maxPacket) {
  auto const image = reassembly::jpegOf(
      reassembly::payloadsOf(maxPacket, [&](FramePackets& packets) { packetizeJpeg(frame, maxPacket, packets); }));
  bool const hasTables = frame.q >= 128 && !frame.scan.empty();
  require(std::ranges::equal(image.scan, frame.scan), "another image");
  require(std::ranges::equal(image.tables, frame.tables.first(hasTables ? frame.tables.size() : 0)), "other tables");
}

void jpegPacketizer(Input input) {
  if (input.size() < 8) {
    return;
  }
  auto const scan = input.subspan(8);
  checkImage({.type = input[3],
              .q = input[4],
              .width = input[5],
              .height = input[6],
              .precision = input[7],
              .tables = scan.first(std::min<std::size_t>(input[2] % 129, scan.size())),
              .scan = scan},
             160 + input[0] * 5U + input[1] % 5);
}

// Parts of frames, which an input selects by number.
Bytes const h264Parts[] = {{0x67, 0x64, 0, 0x1E, 0xAC, 0xD9},
                           {0x68, 0xEB, 0xE3},
                           {0x65, 0x88, 0x84},
                           {0x41, 0x9A, 0x21},
                           {0x09, 0xF0},
                           {0x06, 0x05, 0x80}};
Bytes const h265Parts[] = {{0x40, 1, 0x0C, 1, 0xFF, 0xFF, 1, 0x60, 0, 0, 3, 0, 0x90, 0, 0, 3, 0, 0, 3, 0, 0x3F},
                           {0x42, 1, 1, 1, 0x60, 0, 0, 3, 0, 0x90, 0, 0, 3, 0, 0, 3, 0x3F},
                           {0x44, 1, 0xC1},
                           {0x28, 1, 0xAF},
                           {0x02, 1, 0xD0},
                           {0x46, 1, 0x50}};

// 16x16 pixels of 4:2:0, without Huffman tables.
Bytes const goodJpeg = [] {
  Bytes bytes = {0xFF, 0xD8, 0xFF, 0xDB, 0, 67, 0};
  bytes.insert(bytes.end(), 64, 9);
  Bytes const rest = {0xFF, 0xC0, 0,    17,   8,    0,    16, 0,  16, 3,    1,    0x22, 0,    2,   0x11,
                      0,    3,    0x11, 0,    0xFF, 0xDD, 0,  4,  0,  0,    0xFF, 0xDA, 0,    12,  3,
                      1,    0,    2,    0x11, 3,    0x11, 0,  63, 0,  0xA0, 0x28, 0xEE, 0xFF, 0xD9};
  bytes.insert(bytes.end(), rest.begin(), rest.end());
  return bytes;
}();

// Takes bytes from the front of an input; zeros after its end.
class Choices {
 public:
  explicit Choices(Input input) : m_Rest(input) {}
  bool isEmpty() const { return m_Rest.empty(); }
  std::uint8_t byte() {
    auto const taken = bytes(1);
    return taken.empty() ? 0 : taken[0];
  }
  Input bytes(std::size_t size) {
    auto const taken = m_Rest.first(std::min(size, m_Rest.size()));
    m_Rest = m_Rest.subspan(taken.size());
    return taken;
  }

 private:
  Input m_Rest;
};

Bytes jpegOf(Choices& choices) {
  Bytes frame = goodJpeg;
  for (auto changes = choices.byte() % 4; changes > 0; --changes) {
    auto const at = choices.byte() % frame.size();
    frame[at] = choices.byte();
  }
  frame.resize(frame.size() - (choices.byte() % 8 == 0 ? choices.byte() % frame.size() : 0));
  return frame;
}

// Concatenates parts with and without start codes, and bytes of the input.
Bytes accessUnitOf(std::span<Bytes const> parts, Choices& choices) {
  Bytes frame;
  for (auto left = choices.byte() % 6; left > 0; --left) {
    auto const how = choices.byte();
    frame.insert(frame.end(), how % 2, 0);
    if (how % 16 != 15) {
      frame.insert(frame.end(), {0, 0, 1});
    }
    Bytes const& part = parts[how / 16 % parts.size()];
    frame.insert(frame.end(), part.begin(), part.end() - (how % 8 == 7 ? 1 : 0));
    auto const own = choices.bytes(choices.byte() % 32);
    frame.insert(frame.end(), own.begin(), own.end());
    frame.insert(frame.end(), how % 32 == 30 ? 3000 : 0, 0x55);
  }
  return frame;
}

template <class Function>
bool isUsable(Function const& function) {
  try {
    function();
  } catch (UnusableFrame const&) {
    return false;
  }
  return true;
}

// Encoded frames, most of them nearly valid. A viewer must get every accepted frame complete.
void encoded(Input input) {
  Choices choices(input);
  auto const how = choices.byte();
  bool const areSets = how % 16 == 15;
  unsigned const codec = (areSets ? how / 16 : how) % 3;
  bool const isH265 = codec == 1;
  ParameterSets sets(isH265 ? NalCodec::H265 : NalCodec::H264);
  for (int i = 0; i < 5 && !choices.isEmpty(); ++i) {
    if (codec == 2) {
      auto const frame = jpegOf(choices);
      std::optional<JpegImage> image;
      if (isUsable([&] { image.emplace(frame); })) {
        require(std::ranges::search(frame, image->frame().scan).begin() != frame.end(), "a scan of no image");
        checkImage(image->frame(), 1400);
      }
      continue;
    }
    auto const frame = accessUnitOf(isH265 ? h265Parts : h264Parts, choices);
    AccessUnit unit;
    if (areSets) {
      require(!isUsable([&] { sets.read(frame); }) || sets.areComplete(), "incomplete parameter sets");
    } else if (isUsable([&] { unit = sets.learn(frame); })) {
      require(checkPackets(isH265, frame, 1400) == unit.isKeyFrame, "not what it is");
      require(unit.slices > 0 && unit.delimiter < frame.size(), "no picture");
    }
  }
  if (auto const all = sets.bytes(); sets.areComplete() && all.size() <= 4096) {
    ParameterSets(isH265 ? NalCodec::H265 : NalCodec::H264).read(all);
  }
}

using Unit = void (*)(Input);
constexpr std::pair<std::string_view, Unit> units[] = {{"encoded", encoded},
                                                       {"httprequest", httpRequest},
                                                       {"jpegheader", jpegHeader},
                                                       {"jpegpacketizer", jpegPacketizer},
                                                       {"nalpacketizer", nalPacketizer},
                                                       {"requestreader", requestReader},
                                                       {"rtcp", rtcp},
                                                       {"transport", transport}};
Unit g_Unit;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  for (auto const& [name, unit] : units) {
    if (std::ranges::find(*argv, *argv + *argc, "--unit=" + std::string(name)) != *argv + *argc) {
      g_Unit = unit;
    }
  }
  if (g_Unit == nullptr) {
    std::fputs("units_fuzz: --unit=NAME is missing, or nothing has this name\n", stderr);
    std::exit(2);
  }
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  g_Unit({data, size});
  return 0;
}
