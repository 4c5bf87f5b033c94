#include "server/requestreader.h"

#include <gtest/gtest.h>

#include <vector>

using kavo::RequestReader;
using Item = RequestReader::Item;

namespace {

// All that comes out of the bytes, fed in pieces of a size: the requests and
// payloads, and "malformed" where reading ended so.
std::vector<std::string> read(std::string const& bytes, std::size_t piece) {
  RequestReader reader;
  std::vector<std::string> found;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    reader.add(std::string_view(bytes).substr(at, piece));
    for (Item item; (item = reader.next()) != Item::Incomplete;) {
      if (item == Item::Malformed) {
        found.emplace_back("malformed");
        return found;
      }
      found.push_back(item == Item::Interleaved ? "$" + std::to_string(reader.channel()) + std::string(reader.text())
                                                : std::string(reader.text()));
    }
  }
  return found;
}

}  // namespace

TEST(RequestReader, CutsTheSameHoweverItArrives) {
  std::string const options = "OPTIONS rtsp://h/n RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  std::string const body = "SET_PARAMETER rtsp://h/n RTSP/1.0\r\ncontent-length: 4\r\n\r\nab\r\n";
  std::string const packet(
      "$\x01\x00\x03"
      "a$b",
      7);
  std::string const all = options + packet + "\r\n\r\n" + body + packet + options;
  std::vector<std::string> const expected = {options, "$1a$b", body, "$1a$b", options};
  for (std::size_t const piece : {1U, 2U, 3U, 7U, 1000U}) {
    EXPECT_EQ(read(all, piece), expected) << "in pieces of " << piece;
  }
}

TEST(RequestReader, RefusesWhatNoClientSends) {
  std::string const end = "\r\n\r\n";
  std::string const cases[] = {
      "OPTIONS * RTSP/1.0\r\nContent-Length: -1" + end,
      "OPTIONS * RTSP/1.0\r\nContent-Length: 99999999999999999999" + end,
      "OPTIONS * RTSP/1.0\r\nContent-Length: 9000" + end,
      "OPTIONS * RTSP/1.0\r\nContent-Length: 5x" + end,
      "options * RTSP/1.0" + end,
      "\x16\x03\x01 hello" + end,
      "NOTHINGELSE" + end,
      std::string(40, 'A') + " * RTSP/1.0" + end,
      std::string("OPTIONS * RTSP/1.0\r\nX: \0", 24) + end,
      "OPTIONS " + std::string(9000, 'x'),
      std::string(20000, 'x'),
  };
  for (auto const& bytes : cases) {
    EXPECT_EQ(read(bytes, 4096), std::vector<std::string>{"malformed"}) << bytes.substr(0, 60);
  }
}
