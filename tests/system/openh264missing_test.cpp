// H.264 without OpenH264, or with something else behind its name: the stream is
// refused, and JPEG works as ever. Each case is a process of its own, which finds
// the other library first.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "system/host.h"
#include "system/player.h"

TEST(OpenH264Missing, DISABLED_InThisProcess) {
  Host host;
  host.serve();
  auto session = sessionRecord("stream");
  ASSERT_EQ(host.call(KV_CREATE_SESSION, session), KV_OK);
  auto video = videoRecord(KV_RGB24, KV_CODEC_H264, 320, 240);
  kv_stream_record stream{};
  stream.handle = session.handle;
  stream.video = &video;
  int const expected = std::atoi(std::getenv("KAVO_EXPECTED"));
  EXPECT_EQ(host.call(KV_CREATE_STREAM, stream), expected);
  EXPECT_EQ(stream.stream != nullptr, expected == KV_OK);
  if (expected == KV_OK) {
    return;
  }
  video.dst_codec = KV_CODEC_MJPEG;
  EXPECT_EQ(host.call(KV_CREATE_STREAM, stream), KV_OK);
}

TEST(OpenH264Missing, IsACodecFailureAndNothingElse) {
  auto const self = std::filesystem::read_symlink("/proc/self/exe").string();
  // The last one has the run-time package and not the development package's link.
  for (auto const& [kind, expected] : std::map<std::string, int>{{"absent", KV_CODEC_FAILURE},
                                                                 {"old", KV_CODEC_FAILURE},
                                                                 {"lacking", KV_CODEC_FAILURE},
                                                                 {"runtime", KV_OK}}) {
    TemporaryFolder folder;
    Process child({"env", "LD_LIBRARY_PATH=" KAVO_FAKES "/" + kind, "KAVO_EXPECTED=" + std::to_string(expected), self,
                   "--gtest_also_run_disabled_tests", "--gtest_filter=OpenH264Missing.DISABLED_InThisProcess"},
                  folder.file("output"));
    EXPECT_EQ(child.wait(), 0) << kind << ": " << contentOf(folder.file("output"));
    EXPECT_NE(contentOf(folder.file("output")).find("[  PASSED  ] 1 test"), std::string::npos) << kind;
  }
}
