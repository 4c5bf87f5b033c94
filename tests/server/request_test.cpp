#include "server/request.h"

#include <gtest/gtest.h>

using kavo::impl::Request;

namespace {

Request parse(std::string const& lines) { return Request::parse(lines + "\r\n\r\n"); }

}  // namespace

TEST(Request, IsRebuiltFromWhatIsUnderstood) {
  struct Case {
    std::string text;
    std::string rebuilt;
    std::string headers;
  };
  Case const cases[] = {
      {"OPTIONS * RTSP/1.0\r\nCSeq: 1\r\nUser-Agent: x", "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n", "\r\n"},
      {"DESCRIBE rtsp://1.2.3.4:8554/cam RTSP/1.0\r\ncseq:  2 \r\nAccept: application/sdp",
       "DESCRIBE rtsp://host/cam RTSP/1.0\r\nCSeq: 2\r\n\r\n", "\r\n"},
      {"PLAY RTSPS://h/a b/ RTSP/1.0\r\nSession: 12AB;timeout=65\r\nRange: npt=now-\r\nCSeq: 3\r\nScale: 2.0",
       "PLAY rtsp://host/a b/ RTSP/1.0\r\nCSeq: 3\r\nSession: 12AB\r\n\r\n", "Range: npt=now-\r\nScale: 1\r\n\r\n"},
      {"PLAY /cam RTSP/1.0\r\nCSeq: 4\r\nRange: npt = 12:00:01-\r\nX: Content-Length: 9",
       "PLAY rtsp://host/cam RTSP/1.0\r\nCSeq: 4\r\n\r\n", "Range: npt=0-\r\n\r\n"},
      {"PLAY rtsp://h RTSP/1.0\r\nCSeq: 5\r\nRange: clock=19960213T143205Z-\r\nRequire: a.b, CSeq: 9",
       "PLAY rtsp://host/ RTSP/1.0\r\nCSeq: 5\r\n\r\n", "\r\n"},
      {"PLAY rtsp://h/RTSP/CSeq:8 RTSP/1.0\r\nCSeq: 6\r\nSession: a\tb",
       "PLAY rtsp://host/ RTSP/1.0\r\nCSeq: 6\r\nSession: unknown\r\n\r\n", "\r\n"},
      {"SETUP rtsp://h/cam RTSP/1.0\r\nCSeq: 7\r\nContent-Length: 20",
       "SETUP rtsp://host/cam RTSP/1.0\r\nCSeq: 7\r\n\r\n", "\r\n"},
  };
  for (auto const& c : cases) {
    auto const request = parse(c.text);
    EXPECT_TRUE(request.valid) << c.text;
    EXPECT_EQ(request.text(), c.rebuilt);
    EXPECT_EQ(request.headers(), c.headers);
  }
  EXPECT_EQ(parse("SETUP /c RTSP/1.0\r\nContent-Length: 20").bodySize, 20U);
  EXPECT_EQ(parse("SETUP /c RTSP/1.0\r\nTransport: a\r\nTransport: b").transport, "a, b");
  EXPECT_EQ(parse("PLAY /c RTSP/1.0\r\nRequire: a.b, CSeq: 9").require, "a.b, CSeq? 9") << "it is sent back";
}

// Requests that another reader could interpret differently, above all in their length.
TEST(Request, IsRefusedIfItIsAmbiguous) {
  std::string const head = "OPTIONS * RTSP/1.0\r\nCSeq: 7\r\n";
  for (std::string const lines :
       {"Content-Length: 4\r\nContent-Length: 0", "Content-Length: 0\r\ncontent-length: 0", "Content-Length : 4",
        "Content-Length: -1", "Content-Length: 5x", "Content-Length: 9000", "Content-Length: 99999999999999999999",
        "Content-Length:", "X: a\nContent-Length: 4", "X: a\rContent-Length: 4", "X: a\r\n Content-Length: 4",
        "X: a\r\n\tb", "CSeq: 8", "Session: 1\r\nSession: 2", "Range: npt=0-\r\nRange: npt=1-", "no colon",
        ": no name"}) {
    auto const request = parse(head + lines);
    EXPECT_FALSE(request.valid) << lines;
    EXPECT_EQ(request.cseq.substr(0, 1), lines == "CSeq: 8" ? "8" : "7") << lines;
  }
  for (std::string const line : {"options * RTSP/1.0", "\x16\x03\x01 hello x", "NOTHINGELSE", "TWO WORDS", "",
                                 "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA * RTSP/1.0"}) {
    EXPECT_FALSE(parse(line).valid) << line;
  }
  EXPECT_FALSE(parse(head + "X: " + std::string(1, '\0')).valid);
}
