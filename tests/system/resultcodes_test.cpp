// Every command with valid and invalid records. A failed command changes nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <iostream>

#include "system/host.h"
#include "system/rtspclient.h"

namespace {

// The bytes of a record, to compare after a failed call.
template <class Record>
std::string bytesOf(Record const& record) {
  return std::string(reinterpret_cast<char const*>(&record), sizeof record);
}

template <class Record>
void expectRefusal(Host& host, int command, Record record, int result, char const* what) {
  std::string const before = bytesOf(record);
  EXPECT_EQ(host.call(command, record), result) << what;
  EXPECT_EQ(bytesOf(record), before) << what;
}

void* const nobody = &std::cerr;

class ResultCodes : public ::testing::Test {
 protected:
  void serve() {
    m_Host.serve();
    m_Session = sessionRecord("stream");
    ASSERT_EQ(m_Host.call(KV_CREATE_SESSION, m_Session), KV_OK);
  }

  kv_stream_record streamRecord(kv_video_record const* video) const {
    kv_stream_record record{};
    record.handle = m_Session.handle;
    record.stream = nobody;
    record.video = video;
    return record;
  }

  Host m_Host;
  kv_session_record m_Session{};
};

}  // namespace

TEST_F(ResultCodes, OfCommandsBeforeInit) {
  auto const session = sessionRecord("stream");
  expectRefusal(m_Host, KV_CREATE_SESSION, session, KV_NOT_STARTED, "create session");
  expectRefusal(m_Host, KV_CREATE_SESSION, sessionRecord(""), KV_NOT_STARTED, "create session without a name");
  expectRefusal(m_Host, KV_GET_INFO, session, KV_UNKNOWN, "get info");
  EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, nobody, 8), KV_UNKNOWN);
  EXPECT_EQ(m_Host.call(KV_EXIT, nullptr, 0), KV_OK);
  EXPECT_EQ(m_Host.call(KV_EXIT, nobody, -7), KV_OK);
  for (int const command : {7, -1, 2147483647, -2147483647 - 1}) {
    EXPECT_EQ(m_Host.call(command, nullptr, 0), KV_INVALID_PARAMETER) << command;
  }
}

TEST_F(ResultCodes, OfInit) {
  std::uint32_t port = freePort();
  EXPECT_EQ(m_Host.call(KV_INIT, nullptr, 4), KV_INVALID_PARAMETER);
  EXPECT_EQ(m_Host.call(KV_INIT, &port, 0), KV_INVALID_PARAMETER);
  EXPECT_EQ(m_Host.call(KV_INIT, &port, 8), KV_INVALID_PARAMETER);
  for (std::uint32_t wrong : {0U, 65536U, 4294967295U}) {
    EXPECT_EQ(m_Host.call(KV_INIT, wrong), KV_INVALID_PARAMETER) << wrong;
  }
  m_Host.serve();
  EXPECT_EQ(m_Host.call(KV_INIT, port), KV_ALREADY_THERE);
  std::uint32_t zero = 0;
  EXPECT_EQ(m_Host.call(KV_INIT, zero), KV_ALREADY_THERE);
}

TEST_F(ResultCodes, OfWrongSizesAndNullRecords) {
  serve();
  for (int const command : {KV_CREATE_SESSION, KV_REMOVE_SESSION, KV_CREATE_STREAM, KV_SUBMIT_FRAME, KV_GET_INFO}) {
    char record[400] = {};
    for (int const size : {-1, 0, 4, 9, 39, 41, 335, 337}) {
      EXPECT_EQ(m_Host.call(command, record, size), KV_INVALID_PARAMETER) << command << ", size " << size;
    }
    for (int const size : {8, 40, 336}) {
      EXPECT_EQ(m_Host.call(command, nullptr, size), KV_INVALID_PARAMETER) << command;
    }
  }
}

TEST_F(ResultCodes, OfSessions) {
  serve();
  auto const with = [](std::function<void(kv_session_record&)> const& change) {
    auto record = sessionRecord("other");
    change(record);
    return record;
  };
  expectRefusal(m_Host, KV_CREATE_SESSION, sessionRecord("stream"), KV_NAME_IN_USE, "taken");
  expectRefusal(m_Host, KV_CREATE_SESSION, with([](auto& r) {
                  std::strcpy(r.name, "stream");
                  r.info[0] = 0;
                }),
                KV_NAME_IN_USE, "taken, with an empty info");
  expectRefusal(m_Host, KV_CREATE_SESSION, with([](auto& r) { r.name[0] = 0; }), KV_INVALID_PARAMETER, "name");
  expectRefusal(m_Host, KV_CREATE_SESSION, with([](auto& r) { r.info[0] = 0; }), KV_INVALID_PARAMETER, "info");
  expectRefusal(m_Host, KV_CREATE_SESSION, with([](auto& r) { r.description[0] = 0; }), KV_INVALID_PARAMETER,
                "description");
  for (auto const field : {&kv_session_record::name, &kv_session_record::info, &kv_session_record::description}) {
    expectRefusal(m_Host, KV_CREATE_SESSION, with([&](auto& r) { std::memset(r.*field, 'x', 20); }),
                  KV_INVALID_PARAMETER, "not terminated");
  }
  for (std::string const text : {"a\r\nm=audio 0 RTP/A", "a\x7f", "\x01"}) {
    for (auto const field : {&kv_session_record::name, &kv_session_record::info, &kv_session_record::description}) {
      expectRefusal(m_Host, KV_CREATE_SESSION, with([&](auto& r) { std::strcpy(r.*field, text.c_str()); }),
                    KV_INVALID_PARAMETER, "a control character");
    }
  }
  auto utf8 = with([](auto& r) { std::strcpy(r.name, "T\xc3\xbcr"); });
  EXPECT_EQ(m_Host.call(KV_CREATE_SESSION, utf8), KV_OK);
  auto longest = with([](auto& r) { std::strcpy(r.name, "nineteen-characters"); });
  ASSERT_EQ(m_Host.call(KV_CREATE_SESSION, longest), KV_OK);
  std::string const url = longest.url;
  EXPECT_EQ(url.substr(0, 7), "rtsp://");
  EXPECT_EQ(url.substr(url.rfind(':')), ":" + std::to_string(m_Host.port()) + "/nineteen-characters");

  kv_session_record info{};
  info.handle = longest.handle;
  ASSERT_EQ(m_Host.call(KV_GET_INFO, info), KV_OK);
  EXPECT_STREQ(info.name, "nineteen-characters");
  EXPECT_STREQ(info.info, "the info");
  EXPECT_STREQ(info.description, "the description");
  EXPECT_STREQ(info.url, longest.url);

  EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, longest.handle, 8), KV_OK);
  EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, longest.handle, 8), KV_UNKNOWN);
  info.handle = nobody;
  expectRefusal(m_Host, KV_GET_INFO, info, KV_UNKNOWN, "get info of nobody");
  longest = sessionRecord("nineteen-characters");
  EXPECT_EQ(m_Host.call(KV_CREATE_SESSION, longest), KV_OK);
}

TEST_F(ResultCodes, OfCreateStream) {
  serve();
  struct Case {
    char const* what;
    int result;
    std::function<void(kv_stream_record&, kv_video_record&)> change;
  };
  Case const cases[] = {
      {"media type 1", KV_INVALID_PARAMETER, [](auto& s, auto&) { s.media_type = 1; }},
      {"media type 2", KV_INVALID_PARAMETER, [](auto& s, auto&) { s.media_type = 2; }},
      {"media type -1", KV_INVALID_PARAMETER, [](auto& s, auto&) { s.media_type = -1; }},
      {"no video record", KV_INVALID_PARAMETER, [](auto& s, auto&) { s.video = nullptr; }},
      {"unknown session", KV_UNKNOWN, [](auto& s, auto&) { s.handle = nobody; }},
      {"unknown output", KV_INVALID_PARAMETER, [](auto&, auto& v) { v.dst_codec = 13; }},
      {"the linked FFmpeg's number", KV_INVALID_PARAMETER, [](auto&, auto& v) { v.dst_codec = 27; }},
      {"unknown input", KV_INVALID_PARAMETER, [](auto&, auto& v) { v.src_codec = 1; }},
      {"grey", KV_INVALID_PARAMETER, [](auto&, auto& v) { v.src_pixel_format = 8; }},
      {"no width", KV_INVALID_PARAMETER, [](auto&, auto& v) { v.src_width = 0; }},
      {"no bitrate", KV_INVALID_PARAMETER, [](auto&, auto& v) { v.bitrate = 0; }},
      {"too wide", KV_CODEC_FAILURE, [](auto&, auto& v) { v.dst_width = 2044; }},
      {"too high for H.264", KV_CODEC_FAILURE,
       [](auto&, auto& v) { v.dst_codec = KV_CODEC_H264, v.dst_height = 2306; }},
      {"not in steps of 4", KV_CODEC_FAILURE, [](auto&, auto& v) { v.dst_width = 642; }},
  };
  for (auto const& c : cases) {
    auto video = videoRecord(KV_BGR24, KV_CODEC_MJPEG, 320, 240);
    auto stream = streamRecord(&video);
    c.change(stream, video);
    expectRefusal(m_Host, KV_CREATE_STREAM, stream, c.result, c.what);
  }
  auto const video = videoRecord(KV_BGR24, KV_CODEC_MJPEG, 320, 240);
  auto stream = streamRecord(&video);
  ASSERT_EQ(m_Host.call(KV_CREATE_STREAM, stream), KV_OK);
  expectRefusal(m_Host, KV_CREATE_STREAM, streamRecord(&video), KV_ALREADY_THERE, "second stream");
  auto audio = streamRecord(&video);
  audio.media_type = 1;
  expectRefusal(m_Host, KV_CREATE_STREAM, audio, KV_INVALID_PARAMETER, "media type 1 beside a stream");
}

TEST_F(ResultCodes, OfSubmitFrame) {
  serve();
  std::vector<std::uint8_t> const frame(320 * 240 * 3);
  kv_frame_record record{};
  record.handle = m_Session.handle;
  record.stream = m_Session.handle;
  record.frame = frame.data();
  expectRefusal(m_Host, KV_SUBMIT_FRAME, record, KV_UNKNOWN, "session without a stream");
  auto const video = videoRecord(KV_BGR24, KV_CODEC_MJPEG, 320, 240);
  auto stream = streamRecord(&video);
  ASSERT_EQ(m_Host.call(KV_CREATE_STREAM, stream), KV_OK);
  expectRefusal(m_Host, KV_SUBMIT_FRAME, record, KV_UNKNOWN, "another stream's id");
  record.stream = stream.stream;
  EXPECT_EQ(m_Host.call(KV_SUBMIT_FRAME, record), KV_OK);
  record.frame = nullptr;
  expectRefusal(m_Host, KV_SUBMIT_FRAME, record, KV_INVALID_PARAMETER, "no frame");
  record.handle = nobody;
  expectRefusal(m_Host, KV_SUBMIT_FRAME, record, KV_UNKNOWN, "unknown session");
}

TEST_F(ResultCodes, OfHandlesAfterExit) {
  serve();
  ASSERT_EQ(m_Host.exit(), KV_OK);
  EXPECT_EQ(m_Host.call(KV_REMOVE_SESSION, m_Session.handle, 8), KV_UNKNOWN);
  serve();
}
