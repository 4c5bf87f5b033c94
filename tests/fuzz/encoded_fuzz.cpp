// Any bytes as frames of a host's own encoder, against the library that serves in this process:
// a viewer of the stream gets the frames that were taken, whole, and nothing of the others. The
// input is pieces of streams and what to change in them, so that most frames are nearly right.
#include <cstdio>
#include <cstdlib>
#include <kavo/stream.hpp>
#include <optional>
#include <string>

#include "rtp/nalunits.h"
#include "rtp/reassembly.h"
#include "system/rtspclient.h"

namespace {

using reassembly::Bytes;

// Parts of frames, of each codec; an input picks among them by number.
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
Bytes const goodH264 = {0, 0, 0, 1, 0x67, 0x64, 0, 0x1E, 0xAC, 0, 0, 1, 0x68, 0xEB, 0, 0, 1, 0x65, 0x88, 0xEE};
Bytes const goodH265 = [] {
  Bytes bytes;
  for (std::size_t i = 0; i < 4; ++i) {
    bytes.insert(bytes.end(), {0, 0, 1});
    bytes.insert(bytes.end(), h265Parts[i].begin(), h265Parts[i].end());
  }
  bytes.push_back(0xEE);
  return bytes;
}();

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

[[noreturn]] void fail(char const* what) {
  std::fprintf(stderr, "encoded: %s\n", what);
  std::abort();
}

class Input {
 public:
  Input(std::uint8_t const* data, std::size_t size) : m_Data(data), m_Size(size) {}
  bool isEmpty() const { return m_Size == 0; }
  std::uint8_t byte() { return m_Size == 0 ? 0 : (--m_Size, *m_Data++); }
  Bytes bytes(std::size_t count) {
    Bytes result;
    while (count-- > 0 && !isEmpty()) {
      result.push_back(byte());
    }
    return result;
  }

 private:
  std::uint8_t const* m_Data;
  std::size_t m_Size;
};

struct Codec {
  kavo::Codec codec;
  Bytes const* good;
  std::span<Bytes const> parts;
  char const* name;
};
Codec const codecs[] = {{kavo::Codec::H264, &goodH264, h264Parts, "one"},
                        {kavo::Codec::H265, &goodH265, h265Parts, "two"},
                        {kavo::Codec::Jpeg, &goodJpeg, {}, "three"}};

// The good image with bytes changed, or parts with and without start codes, and bytes of the input's own.
Bytes frameOf(Codec const& codec, Input& input) {
  Bytes frame;
  if (codec.parts.empty()) {
    frame = *codec.good;
    for (auto changes = input.byte() % 4; changes > 0; --changes) {
      frame[input.byte() % frame.size()] = input.byte();
    }
    frame.resize(frame.size() - (input.byte() % 8 == 0 ? input.byte() % frame.size() : 0));
  }
  for (auto parts = input.byte() % 6; parts > 0 && !codec.parts.empty(); --parts) {
    auto const how = input.byte();
    frame.insert(frame.end(), how % 2, 0);
    if (how % 16 != 15) {
      frame.insert(frame.end(), {0, 0, 1});
    }
    Bytes const& part = codec.parts[how / 16 % codec.parts.size()];
    frame.insert(frame.end(), part.begin(), part.end() - (how % 8 == 7 ? 1 : 0));
    auto const own = input.bytes(input.byte() % 32);
    frame.insert(frame.end(), own.begin(), own.end());
    frame.insert(frame.end(), how % 32 == 30 ? 3000 : 0, 0x55);
  }
  return frame;
}

// A stream of the codec with a viewer on a connection.
class Watched {
 public:
  Watched(kavo::Server& server, std::uint32_t port, Codec const& codec)
      : m_Codec(codec), m_Session(server.createSession(codec.name)), m_Viewer(port) {
    kavo::EncodedOptions options;
    options.codec = codec.codec;
    m_Stream.emplace(m_Session.createEncodedStream(options));
    if (!m_Viewer.play("rtsp://127.0.0.1:" + std::to_string(port) + "/" + codec.name)) {
      fail("the viewer was not let in");
    }
  }

  void tryParameterSets(kavo::Server& server, Input& input) const {
    auto session = server.createSession("tried");
    kavo::EncodedOptions options;
    options.codec = m_Codec.codec;
    options.parameterSets = frameOf(m_Codec, input);
    try {
      session.createEncodedStream(options);
    } catch (kavo::Error const&) {
    }
  }

  // Up to five, fewer than the queue takes, and then a good one.
  void submit(Input& input) {
    std::vector<Bytes> taken;
    for (int i = 0; i < 5 && !input.isEmpty(); ++i) {
      Bytes const frame = frameOf(m_Codec, input);
      if (isTaken(frame)) {
        taken.push_back(frame);
      }
    }
    Bytes const last = goodFrame();
    if (!isTaken(last)) {
      fail("a good frame was refused");
    }
    std::size_t at = 0;
    for (auto seen = next(); !contains(seen, last); seen = next()) {
      while (at < taken.size() && !contains(seen, taken[at])) {
        ++at;  // the viewer could not begin with it
      }
      if (at++ == taken.size()) {
        fail("a frame came that nobody submitted");
      }
    }
  }

 private:
  // Different from all others.
  Bytes goodFrame() {
    Bytes frame = *m_Codec.good;
    ++m_Number;
    Bytes const number = {static_cast<std::uint8_t>(1 + m_Number / 62500 % 250),
                          static_cast<std::uint8_t>(1 + m_Number / 250 % 250),
                          static_cast<std::uint8_t>(1 + m_Number % 250)};
    frame.insert(frame.end() - (m_Codec.parts.empty() ? 2 : 0), number.begin(), number.end());
    return frame;
  }

  bool isTaken(Bytes const& frame) {
    if (frame.empty()) {
      return false;
    }
    auto const before = m_Stream->status().encoded;
    try {
      m_Stream->submit(frame.data(), frame.size());
    } catch (kavo::Error const& error) {
      if (error.result() != KV_CODEC_FAILURE) {
        fail("another result");
      }
    }
    return m_Stream->status().encoded > before;
  }

  // The payloads of one frame, as they came.
  std::vector<Bytes> next() {
    std::vector<Bytes> payloads;
    while (true) {
      auto const packet = m_Viewer.packet();
      if (packet.channel < 0) {
        fail("the frames did not come");
      }
      if (packet.channel == 0) {
        payloads.emplace_back(packet.bytes.begin() + 12, packet.bytes.end());
        if ((packet.bytes[1] & 0x80) != 0) {
          return payloads;
        }
      }
    }
  }

  // All of the frame came, in order, and nothing else but parameter sets before it.
  bool contains(std::vector<Bytes> const& payloads, Bytes const& frame) const {
    if (m_Codec.parts.empty()) {
      auto const scan = reassembly::jpegOf(payloads).scan;
      return std::search(frame.begin(), frame.end(), scan.begin(), scan.end()) != frame.end();
    }
    auto const seen = reassembly::nalUnitsOf(payloads, m_Codec.codec == kavo::Codec::H264 ? 1 : 2);
    std::size_t at = 0;
    std::span<std::uint8_t const> rest(frame);
    for (auto unit = kavo::impl::takeNalUnit(rest); !unit.empty(); unit = kavo::impl::takeNalUnit(rest)) {
      while (at < seen.size() && !std::equal(unit.begin(), unit.end(), seen[at].begin(), seen[at].end())) {
        ++at;
      }
      if (at++ == seen.size()) {
        return false;
      }
    }
    return true;
  }

  Codec const& m_Codec;
  unsigned m_Number = 0;
  kavo::Session m_Session;
  std::optional<kavo::EncodedStream> m_Stream;
  RtspClient m_Viewer;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  static std::uint32_t const port = freePort();
  static kavo::Server server(static_cast<std::uint16_t>(port));
  static Watched watched[] = {{server, port, codecs[0]}, {server, port, codecs[1]}, {server, port, codecs[2]}};
  Input input(data, size);
  auto const how = input.byte();
  if (how % 16 == 15) {
    watched[how / 16 % 3].tryParameterSets(server, input);
  } else {
    watched[how % 3].submit(input);
  }
  return 0;
}
