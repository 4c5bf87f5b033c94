// What real players show of submitted frames.
#include <gtest/gtest.h>

#include <deque>

#include "system/host.h"
#include "system/player.h"

using Client = Player::Client;
using Transport = Player::Transport;

namespace {

struct Played {
  int codec;
  Client client;
  Transport transport;
  char const* address = "127.0.0.1";
};

constexpr Played played[] = {
    {KV_CODEC_MJPEG, Client::Ffmpeg, Transport::Tcp},
    {KV_CODEC_MJPEG, Client::Ffmpeg, Transport::Udp},
    {KV_CODEC_MJPEG, Client::Gstreamer, Transport::Tcp},
    {KV_CODEC_MJPEG, Client::Gstreamer, Transport::Udp},
    {KV_CODEC_H264, Client::Ffmpeg, Transport::Tcp},
    {KV_CODEC_H264, Client::Ffmpeg, Transport::Udp},
    {KV_CODEC_H264, Client::Gstreamer, Transport::Tcp},
    {KV_CODEC_H264, Client::Gstreamer, Transport::Udp},
    {KV_CODEC_MJPEG, Client::Gstreamer, Transport::Udp, "[::1]"},
    {KV_CODEC_H264, Client::Gstreamer, Transport::Udp, "[::1]"},
    {KV_CODEC_H264, Client::Ffmpeg, Transport::Udp, "[::1]"},
};

}  // namespace

// Each player joins a stream that nobody watches.
TEST(Players, ShowTheRightFrameFromTheFirstOn) {
  Host host;
  host.serve();
  host.publish("jpeg");
  host.publish("h264", KV_BGR24, KV_CODEC_H264);
  host.startSubmitting();
  for (auto const& [codec, client, transport, address] : played) {
    auto const url = host.url(codec == KV_CODEC_H264 ? "h264" : "jpeg", address);
    Player player(client, transport, url, 3, codec);
    auto const frames = player.frames(320, 240);
    EXPECT_GE(frames.size(), 3U) << player.messages();
    for (auto const& frame : frames) {
      EXPECT_EQ(differences(frame), "") << "codec " << codec << ", " << address << ", client " << int(client)
                                        << ", transport " << int(transport);
    }
    if (client == Client::Ffmpeg) {
      EXPECT_EQ(player.complaints(), "") << "codec " << codec << ", transport " << int(transport);
    }
  }
  EXPECT_EQ(host.failedSubmits(), 0);
}

TEST(Players, ShowEveryFormatInItsColours) {
  Host host;
  host.serve();
  struct Watched {
    std::string name;
    Player player;
  };
  std::deque<Watched> watched;
  for (int const codec : {KV_CODEC_MJPEG, KV_CODEC_H264}) {
    for (int const format : {0, 2, 3, 4, 12, 13, 27, 28, 29, 30}) {
      host.publish(std::to_string(codec) + "-" + std::to_string(format), format, codec);
    }
  }
  host.startSubmitting();
  for (auto const& name : host.names()) {
    watched.push_back({name, Player(Client::Ffmpeg, Transport::Tcp, host.url(name), 1)});
  }
  for (auto& [name, player] : watched) {
    auto const frames = player.frames(320, 240);
    ASSERT_EQ(frames.size(), 1U) << name << ": " << player.messages();
    EXPECT_EQ(differences(frames[0]), "") << "codec-format " << name;
  }
}

TEST(Players, ShowAScaledFrameOfTheLargestSize) {
  Host host;
  host.serve();
  host.publish("large", KV_RGB24, KV_CODEC_MJPEG, 322, 242, 800000, 2040);
  host.startSubmitting();
  Player player(Client::Ffmpeg, Transport::Tcp, host.url("large"), 1);
  auto const frames = player.frames(2040, 2040);
  ASSERT_EQ(frames.size(), 1U) << player.messages();
  EXPECT_EQ(differences(frames[0]), "");
}
