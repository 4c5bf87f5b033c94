// What real players show of what a host submits.
#include <gtest/gtest.h>

#include <deque>

#include "delivery/host.h"
#include "delivery/player.h"

using Client = Player::Client;
using Transport = Player::Transport;

struct Row {
  Client client;
  Transport transport;
};

constexpr Row rows[] = {
    {Client::Ffmpeg, Transport::Tcp},
    {Client::Ffmpeg, Transport::Udp},
    {Client::Gstreamer, Transport::Tcp},
    {Client::Gstreamer, Transport::Udp},
};

// Each player as the stream's first viewer, and again after nobody watched.
TEST(Players, ShowTheRightPictureFromTheFirstOn) {
  Host host;
  host.serve();
  host.publish("stream");
  host.startSubmitting();
  for (auto const& [client, transport] : rows) {
    Player player(client, transport, host.url("stream"), 3);
    auto const pictures = player.pictures(320, 240);
    EXPECT_GE(pictures.size(), 3U) << player.messages();
    for (auto const& picture : pictures) {
      EXPECT_EQ(differences(picture), "") << "client " << int(client) << ", transport " << int(transport);
    }
  }
  EXPECT_EQ(host.failedSubmits(), 0);
}

TEST(Players, ShowEveryFormatInItsColours) {
  Host host;
  host.serve();
  for (int const format : {0, 2, 3, 4, 12, 13, 27, 28, 29, 30}) {
    host.publish("format" + std::to_string(format), format);
  }
  host.startSubmitting();
  std::deque<Player> players;
  for (int const format : {0, 2, 3, 4, 12, 13, 27, 28, 29, 30}) {
    players.emplace_back(Client::Ffmpeg, Transport::Tcp, host.url("format" + std::to_string(format)), 1);
  }
  int const formats[] = {0, 2, 3, 4, 12, 13, 27, 28, 29, 30};
  for (std::size_t i = 0; i < players.size(); ++i) {
    auto const pictures = players[i].pictures(320, 240);
    ASSERT_EQ(pictures.size(), 1U) << players[i].messages();
    EXPECT_EQ(differences(pictures[0]), "") << "format " << formats[i];
  }
}

TEST(Players, ShowAScaledPictureOfTheLargestSize) {
  Host host;
  host.serve();
  auto session = sessionRecord("large");
  ASSERT_EQ(host.call(KV_CREATE_SESSION, session), KV_OK);
  auto video = videoRecord(KV_RGB24, KV_CODEC_MJPEG, 322, 242);
  video.dst_width = video.dst_height = 2040;
  kv_stream_record stream{};
  stream.handle = session.handle;
  stream.video = &video;
  ASSERT_EQ(host.call(KV_CREATE_STREAM, stream), KV_OK);
  auto const frame = testFrame(KV_RGB24, 322, 242);
  kv_frame_record record{};
  record.handle = session.handle;
  record.stream = stream.stream;
  record.frame = frame.data();

  Player player(Client::Ffmpeg, Transport::Tcp, host.url("large"), 1);
  std::atomic<bool> done = false;
  std::thread submitter([&] {
    while (!done) {
      EXPECT_EQ(host.call(KV_SUBMIT_FRAME, record), KV_OK);
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
    }
  });
  auto const pictures = player.pictures(2040, 2040);
  done = true;
  submitter.join();
  ASSERT_EQ(pictures.size(), 1U) << player.messages();
  EXPECT_EQ(differences(pictures[0]), "");
}
