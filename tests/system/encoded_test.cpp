// Frames that the host has encoded: what is accepted, what is refused, and what viewers get.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <initializer_list>
#include <thread>

#include "rtp/reassembly.h"
#include "system/host.h"
#include "system/rtspclient.h"

namespace {

class EncodedStreams : public ::testing::Test {
 protected:
  using Bytes = reassembly::Bytes;
  using NalUnits = std::vector<Bytes>;

  inline static Bytes const startCode = {0, 0, 0, 1};
  inline static Bytes const sps = {0x67, 0x64, 0, 0x1E, 0xAC, 0xD9, 0x40, 0xA0};
  inline static Bytes const otherSps = {0x67, 0x42, 0xE0, 0x1E, 0xAC, 0xD9, 0x40, 0xA0};
  inline static Bytes const pps = {0x68, 0xEB, 0xE3, 0xCB};
  inline static Bytes const delimiter = {0x09, 0xF0};
  inline static Bytes const sei = {0x06, 0x05, 0x01, 0x80};
  inline static Bytes const idr = {0x65, 0x88, 0x84, 0x21};
  inline static Bytes const idrSecondSlice = {0x65, 0x08, 0x84, 0x22};
  inline static Bytes const inter = {0x41, 0x9A, 0x21, 0x33};
  inline static Bytes const vps265 = {0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x01, 0x60, 0, 0,    3,
                                      0,    0x90, 0,    0,    3,    0,    0,    3,    0, 0x3F, 0x95};
  inline static Bytes const sps265 = {0x42, 0x01, 0x01, 0x01, 0x60, 0, 0, 3, 0, 0x90, 0, 0, 3, 0, 0, 3, 0, 0x3F, 0xA0};
  inline static Bytes const pps265 = {0x44, 0x01, 0xC1, 0x72};
  inline static Bytes const cra265 = {0x2A, 0x01, 0xAF, 0x11};  // a key frame, although not an IDR
  inline static Bytes const inter265 = {0x02, 0x01, 0xD0, 0x11};

  EncodedStreams() {
    m_Host.serve();
    m_Session = sessionRecord("stream");
    EXPECT_EQ(m_Host.call(KV_CREATE_SESSION, m_Session), KV_OK);
  }

  static Bytes annexB(std::initializer_list<Bytes> nalUnits) {
    Bytes bytes;
    for (Bytes const& nalUnit : nalUnits) {
      bytes.insert(bytes.end(), startCode.begin(), startCode.end());
      bytes.insert(bytes.end(), nalUnit.begin(), nalUnit.end());
    }
    return bytes;
  }

  kv_encoded_stream_record streamRecord(int codec, Bytes const& sets = {}) const {
    kv_encoded_stream_record record{};
    record.handle = m_Session.handle;
    record.codec = codec;
    record.parameter_sets = sets.empty() ? nullptr : sets.data();
    record.parameter_size = static_cast<std::int32_t>(sets.size());
    return record;
  }

  void create(int codec, Bytes const& sets = {}) {
    auto record = streamRecord(codec, sets);
    record.bitrate = 1234;
    ASSERT_EQ(m_Host.call(KV_CREATE_ENCODED_STREAM, record), KV_OK);
    m_Stream = record.stream;
  }

  kv_encoded_frame_record frameRecord(Bytes const& bytes, std::int64_t time = 0) const {
    kv_encoded_frame_record record{};
    record.handle = m_Session.handle;
    record.stream = m_Stream;
    record.data = bytes.data();
    record.size = bytes.size();
    record.time_ns = time;
    return record;
  }

  int submit(Bytes const& bytes, std::int64_t time = 0) {
    auto record = frameRecord(bytes, time);
    int const result = m_Host.call(KV_SUBMIT_ENCODED, record);
    m_Wanted = record.wanted;
    return result;
  }

  std::string url() const { return m_Host.url("stream"); }
  std::string description() { return RtspClient(m_Host.port()).request("DESCRIBE", url()).text; }

  // The NAL units of the next frame; empty if none arrives. Sets m_RtpTime.
  std::vector<Bytes> nextFrame(RtspClient& viewer) {
    std::vector<Bytes> payloads;
    for (auto packet = viewer.packet(); packet.channel >= 0; packet = viewer.packet()) {
      if (packet.channel == 0) {
        payloads.emplace_back(packet.bytes.begin() + 12, packet.bytes.end());
        m_RtpTime = reassembly::numberAt(packet.bytes, 4, 4);
        if ((packet.bytes[1] & 0x80) != 0) {
          return m_IsH265 ? payloads : reassembly::nalUnitsOf(payloads);
        }
      }
    }
    return {};
  }

  Host m_Host;
  kv_session_record m_Session{};
  kv_stream_id m_Stream = nullptr;
  std::uint32_t m_Wanted = 0;
  std::uint32_t m_RtpTime = 0;
  bool m_IsH265 = false;
};

}  // namespace

TEST_F(EncodedStreams, ResultsOfCreatingOne) {
  Bytes const good = annexB({sps, pps});
  Bytes const half = annexB({sps});
  Bytes const more = annexB({sps, pps, idr});
  Bytes const bare = {0x67, 1, 2, 3};
  using Record = kv_encoded_stream_record;
  struct Case {
    char const* what;
    int result;
    std::function<void(Record&)> change;
  };
  Case const cases[] = {
      {"no such session", KV_UNKNOWN, [&](Record& r) { r.handle = &r; }},
      {"codec", KV_INVALID_PARAMETER, [](Record& r) { r.codec = 27; }},
      {"bitrate", KV_INVALID_PARAMETER, [](Record& r) { r.bitrate = -1; }},
      {"sets without a size", KV_INVALID_PARAMETER, [](Record& r) { r.parameter_size = 0; }},
      {"a size without sets", KV_INVALID_PARAMETER, [](Record& r) { r.parameter_sets = nullptr; }},
      {"a negative size", KV_INVALID_PARAMETER, [](Record& r) { r.parameter_size = -1; }},
      {"sets of JPEG", KV_INVALID_PARAMETER, [](Record& r) { r.codec = KV_CODEC_MJPEG; }},
      {"no PPS", KV_CODEC_FAILURE,
       [&](Record& r) {
         r.parameter_sets = half.data();
         r.parameter_size = static_cast<int>(half.size());
       }},
      {"a picture among them", KV_CODEC_FAILURE,
       [&](Record& r) {
         r.parameter_sets = more.data();
         r.parameter_size = static_cast<int>(more.size());
       }},
      {"no start code", KV_CODEC_FAILURE,
       [&](Record& r) {
         r.parameter_sets = bare.data();
         r.parameter_size = static_cast<int>(bare.size());
       }},
      {"H.264's for H.265", KV_CODEC_FAILURE, [](Record& r) { r.codec = KV_CODEC_H265; }},
      {"good", KV_OK, [](Record&) {}},
      {"a second one", KV_ALREADY_THERE, [](Record&) {}},
  };
  for (Case const& c : cases) {
    auto record = streamRecord(KV_CODEC_H264, good);
    c.change(record);
    EXPECT_EQ(m_Host.call(KV_CREATE_ENCODED_STREAM, record), c.result) << c.what;
    EXPECT_EQ(record.stream != nullptr, c.result == KV_OK) << c.what;
    m_Stream = record.stream;
  }
  char bytes[64] = {};
  for (int const command : {KV_CREATE_ENCODED_STREAM, KV_SUBMIT_ENCODED}) {
    EXPECT_EQ(m_Host.call(command, nullptr, command == KV_SUBMIT_ENCODED ? 56 : 48), KV_INVALID_PARAMETER);
    for (int const size : {0, 40, 47, 49, 55, 57}) {
      EXPECT_EQ(m_Host.call(command, bytes, size), KV_INVALID_PARAMETER) << command << ", " << size;
    }
  }
}

TEST_F(EncodedStreams, ResultsOfFrames) {
  create(KV_CODEC_H264);
  Bytes const good = annexB({sps, pps, idr});
  using Record = kv_encoded_frame_record;
  std::pair<int, std::function<void(Record&)>> const cases[] = {
      {KV_UNKNOWN, [](Record& r) { r.handle = &r; }},
      {KV_UNKNOWN, [](Record& r) { r.stream = &r; }},
      {KV_INVALID_PARAMETER, [](Record& r) { r.data = nullptr; }},
      {KV_INVALID_PARAMETER, [](Record& r) { r.size = 0; }},
      {KV_INVALID_PARAMETER, [](Record& r) { r.size = 8000001; }},
      {KV_INVALID_PARAMETER, [](Record& r) { r.time_ns = -1; }},
      {KV_OK, [](Record&) {}},
  };
  for (auto const& [result, change] : cases) {
    auto record = frameRecord(good);
    change(record);
    EXPECT_EQ(m_Host.call(KV_SUBMIT_ENCODED, record), result);
  }
  EXPECT_EQ(submit({1, 2, 3}), KV_OK) << "nobody watches: the data is not looked at";
  EXPECT_EQ(m_Wanted, 0U);
  kv_frame_record raw{};
  raw.handle = m_Session.handle;
  raw.stream = m_Stream;
  raw.frame = good.data();
  EXPECT_EQ(m_Host.call(KV_SUBMIT_FRAME, raw), KV_INVALID_PARAMETER) << "a raw frame";
  auto const other = m_Host.publish("raw").record;
  auto record = frameRecord(good);
  record.handle = other.handle;
  record.stream = other.stream;
  EXPECT_EQ(m_Host.call(KV_SUBMIT_ENCODED, record), KV_INVALID_PARAMETER) << "an encoded frame for a raw stream";
}

// The key frame can be decoded by itself, and a delimiter stays first.
TEST_F(EncodedStreams, AViewerBeginsWithAKeyFrameAndItsParameterSets) {
  create(KV_CODEC_H264, annexB({sps, pps}));
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  ASSERT_EQ(submit(annexB({inter})), KV_OK);
  EXPECT_EQ(m_Wanted, std::uint32_t{KV_WANTS_FRAME | KV_WANTS_KEY_FRAME});
  ASSERT_EQ(submit(annexB({delimiter, sei, idr, idrSecondSlice})), KV_OK);
  EXPECT_EQ(m_Wanted, std::uint32_t{KV_WANTS_FRAME}) << "one key frame is enough";
  EXPECT_EQ(nextFrame(viewer), (NalUnits{delimiter, sps, pps, sei, idr, idrSecondSlice}));
  ASSERT_EQ(submit(annexB({otherSps, pps, idr})), KV_OK);
  EXPECT_EQ(nextFrame(viewer), (NalUnits{otherSps, pps, idr})) << "it has its own";
  Bytes shortCode = annexB({inter});
  shortCode.erase(shortCode.begin());
  ASSERT_EQ(submit(shortCode), KV_OK);
  EXPECT_EQ(nextFrame(viewer), (NalUnits{inter}));
  ASSERT_EQ(submit(annexB({idr})), KV_OK);
  EXPECT_EQ(nextFrame(viewer), (NalUnits{otherSps, pps, idr})) << "the newest are known";
}

TEST_F(EncodedStreams, OfH265AnyIrapIsAKeyFrame) {
  m_IsH265 = true;
  create(KV_CODEC_H265, annexB({vps265, sps265, pps265}));
  auto const described = description();
  EXPECT_NE(described.find("H265/90000"), std::string::npos) << described;
  for (char const* const set : {"sprop-vps=QAEM", "sprop-sps=QgEB", "sprop-pps=RAHBcg=="}) {
    EXPECT_NE(described.find(set), std::string::npos) << set << " in " << described;
  }
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  ASSERT_EQ(submit(annexB({inter265})), KV_OK);
  ASSERT_EQ(submit(annexB({cra265})), KV_OK);
  EXPECT_EQ(nextFrame(viewer), (NalUnits{vps265, sps265, pps265, cra265}));
}

// The parameter sets of the record, then those submitted in band; without any, only the packetization mode.
TEST_F(EncodedStreams, TheDescriptionTellsTheParameterSetsInUse) {
  create(KV_CODEC_H264);
  auto const before = description();
  EXPECT_NE(before.find("b=AS:1234\r\n"), std::string::npos) << before;
  EXPECT_NE(before.find("packetization-mode=1\r\n"), std::string::npos) << before;
  EXPECT_EQ(before.find("sprop"), std::string::npos);
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  EXPECT_EQ(submit(annexB({idr})), KV_CODEC_FAILURE) << "a key frame, but no sets are known";
  ASSERT_EQ(submit(annexB({sps, pps, idr})), KV_OK);
  auto const after = description();
  EXPECT_NE(after.find("profile-level-id=64001E;sprop-parameter-sets=Z2QAHqzZQKA=,aOvjyw=="), std::string::npos)
      << after;
  ASSERT_EQ(submit(annexB({otherSps, pps, idr})), KV_OK);
  EXPECT_NE(description().find("profile-level-id=42E01E"), std::string::npos);
}

TEST_F(EncodedStreams, WhatIsNoAccessUnitIsRefusedAndTheNextFrameIsAKeyFrame) {
  create(KV_CODEC_H264, annexB({sps, pps}));
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  ASSERT_EQ(submit(annexB({idr})), KV_OK);
  EXPECT_EQ(nextFrame(viewer).size(), 3U);
  Bytes lengthPrefixed = annexB({inter});
  lengthPrefixed[3] = 4;
  std::pair<char const*, Bytes> const cases[] = {
      {"no start code", inter},
      {"a length in place of a start code", lengthPrefixed},
      {"nothing but zeros", Bytes(20, 0)},
      {"an empty NAL unit", startCode},
      {"parameter sets alone", annexB({sps, pps})},
      {"two access units", annexB({inter, inter})},
      {"the second half of a picture", annexB({idrSecondSlice})},
      {"the forbidden bit", annexB({Bytes{0xC1, 0x9A, 0x21}})},
      {"a type of the packets", annexB({inter, Bytes{0x78, 1, 2}})},
      {"a truncated SPS", annexB({Bytes{0x67, 1}, pps, idr})},
      {"endless parameter sets", annexB({sps, Bytes(5000, 0x68), idr})},
  };
  for (auto const& [what, bytes] : cases) {
    EXPECT_EQ(submit(bytes), KV_CODEC_FAILURE) << what;
  }
  ASSERT_EQ(submit(annexB({inter})), KV_OK) << "which refers to what was lost";
  ASSERT_EQ(submit(annexB({idr})), KV_OK);
  EXPECT_EQ(nextFrame(viewer), (NalUnits{sps, pps, idr})) << "and nothing else before it";
}

TEST_F(EncodedStreams, CaptureTimesGoOn) {
  create(KV_CODEC_H264, annexB({sps, pps}));
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  std::int64_t const begin = 5000000000;
  std::tuple<std::int64_t, int, int> const cases[] = {{0, KV_OK, 0},
                                                      {40, KV_OK, 3600},
                                                      {40, KV_INVALID_PARAMETER, 0},
                                                      {39, KV_INVALID_PARAMETER, 0},
                                                      {73, KV_OK, 6570}};
  std::uint32_t first = 0;
  for (auto const& [milliseconds, result, ticks] : cases) {
    ASSERT_EQ(submit(annexB({idr}), begin + milliseconds * 1000000), result) << milliseconds;
    if (result == KV_OK) {
      ASSERT_FALSE(nextFrame(viewer).empty());
      first = milliseconds == 0 ? m_RtpTime : first;
      EXPECT_NEAR(static_cast<std::int32_t>(m_RtpTime - first - static_cast<std::uint32_t>(ticks)), 0, 1);
    }
  }
  EXPECT_EQ(submit(annexB({idr})), KV_OK) << "now";
}

// The host submits faster than frames are sent: no frame that arrives refers to a dropped one.
TEST_F(EncodedStreams, AfterADroppedFrameComesAKeyFrame) {
  create(KV_CODEC_H264, annexB({sps, pps}));
  RtspClient viewer(m_Host.port());
  ASSERT_TRUE(viewer.play(url()));
  auto const numbered = [](Bytes slice, int number) {
    for (int const part : {number / 40000, number / 200 % 200, number % 200}) {
      slice.push_back(static_cast<std::uint8_t>(1 + part));
    }
    return annexB({slice});
  };
  constexpr int keyInterval = 30;
  std::jthread const submitter([&](std::stop_token const& end) {
    for (int i = 0; !end.stop_requested(); ++i) {
      EXPECT_EQ(submit(numbered(i % keyInterval == 0 ? idr : inter, i)), KV_OK);
    }
  });
  int last = -1;
  int gaps = 0;
  for (int frames = 0; gaps < 5 || frames < 500; ++frames) {
    auto const frame = nextFrame(viewer);
    ASSERT_FALSE(frame.empty());
    auto const end = frame.back().end();
    int const number = (end[-3] - 1) * 40000 + (end[-2] - 1) * 200 + end[-1] - 1;
    if (number != last + 1) {
      EXPECT_EQ(number % keyInterval, 0) << "after " << last;
      ++gaps;
    }
    last = number;
  }
}
