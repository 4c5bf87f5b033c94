#include "server/requestreader.h"

#include <gtest/gtest.h>

#include <vector>

using kavo::impl::RequestReader;
using Item = RequestReader::Item;

namespace {

// All that comes out of the bytes, fed in pieces of a size: the requests' numbers,
// the packets, and "malformed" where reading ended so.
std::vector<std::string> read(std::string const& bytes, std::size_t piece) {
  RequestReader reader;
  std::vector<std::string> found;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    reader.add(std::string_view(bytes).substr(at, piece));
    for (Item item; (item = reader.next()) != Item::Incomplete;) {
      if (item == Item::Malformed) {
        found.emplace_back("malformed " + reader.request().cseq);
        return found;
      }
      auto const packet = reader.packet();
      found.push_back(item == Item::Interleaved
                          ? "$" + std::to_string(reader.channel()) + std::string(packet.begin(), packet.end())
                          : reader.request().cseq);
    }
  }
  return found;
}

}  // namespace

TEST(RequestReader, SplitsTheSameHoweverItArrives) {
  std::string const options = "OPTIONS rtsp://h/n RTSP/1.0\r\nCSeq: 1\r\n\r\n";
  std::string const body = "SET_PARAMETER rtsp://h/n RTSP/1.0\r\nCSeq: 2\r\ncontent-length: 4\r\n\r\nab\r\n";
  std::string const packet(
      "$\x01\x00\x03"
      "a$b",
      7);
  std::string const all = options + packet + "\r\n\r\n" + body + packet + options;
  std::vector<std::string> const expected = {"1", "$1a$b", "2", "$1a$b", "1"};
  for (std::size_t const piece : {1U, 2U, 3U, 7U, 1000U}) {
    EXPECT_EQ(read(all, piece), expected) << "in pieces of " << piece;
  }
}

// A body is skipped, whatever it looks like; its length is read in one way only.
TEST(RequestReader, ABodyIsNeverARequest) {
  std::string const inner = "OPTIONS * RTSP/1.0\r\nCSeq: 66\r\n\r\n";
  auto const length = "Content-Length: " + std::to_string(inner.size());
  std::string const last = "OPTIONS * RTSP/1.0\r\nCSeq: 3\r\n\r\n";
  std::string const head = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n";
  EXPECT_EQ(read(head + length + "\r\n\r\n" + inner + last, 5), (std::vector<std::string>{"1", "3"}));
  EXPECT_EQ(read(head + length + "\r\nContent-Length: 0\r\n\r\n" + inner + last, 4096),
            std::vector<std::string>{"malformed 1"});
}

TEST(RequestReader, WhatHasNoEndIsMalformed) {
  EXPECT_EQ(read("OPTIONS * RTSP/1.0\r\nCSeq: 5\r\nX: " + std::string(9000, 'x'), 4096),
            std::vector<std::string>{"malformed 5"});
  EXPECT_EQ(read(std::string(20000, 'x'), 4096), std::vector<std::string>{"malformed "});
}
