// The packets on the wire conform to the RFCs.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <thread>
#include <vector>

#include "system/host.h"
#include "system/rtpchecker.h"
#include "system/rtspclient.h"

namespace {

double wallClock() {
  timeval now{};
  gettimeofday(&now, nullptr);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_usec) / 1e6;
}

struct Reception {
  int codec;
  bool tcp;
  RtpChecker checker{codec};
};

void receive(Host const& host, Reception& row) {
  auto const url = host.url(row.codec == KV_CODEC_H264 ? "h264" : "jpeg");
  RtspClient client(host.port());
  ASSERT_TRUE(row.tcp ? client.play(url) : client.playOverUdp(url));
  while (row.checker.frames() < 100 || row.checker.senderReports() < 2) {
    auto const packet = client.packet();
    ASSERT_GE(packet.channel, 0) << "after " << row.checker.frames() << " frames";
    if (packet.channel == 0) {
      row.checker.rtp(packet.bytes, wallClock());
    } else {
      row.checker.rtcp(packet.bytes);
    }
  }
}

}  // namespace

TEST(RtpConformance, OfBothCodecsOverBothTransports) {
  Host host;
  host.serve();
  host.publish("jpeg", KV_CODEC_MJPEG, 640, 480);
  host.publish("h264", KV_CODEC_H264, 640, 480);
  host.startSubmitting();
  Reception rows[] = {{KV_CODEC_MJPEG, true}, {KV_CODEC_MJPEG, false}, {KV_CODEC_H264, true}, {KV_CODEC_H264, false}};
  std::vector<std::thread> viewers;
  for (Reception& row : rows) {
    viewers.emplace_back([&host, &row] { receive(host, row); });
  }
  for (auto& viewer : viewers) {
    viewer.join();
  }
  for (Reception const& row : rows) {
    EXPECT_EQ(row.checker.complaints(), std::vector<std::string>()) << "codec " << row.codec << ", tcp " << row.tcp;
    if (row.codec == KV_CODEC_H264) {
      ASSERT_GE(row.checker.nalTypes().size(), 3U);
      EXPECT_EQ(row.checker.nalTypes()[0], 7);
      EXPECT_EQ(row.checker.nalTypes()[1], 8);
      EXPECT_EQ(row.checker.nalTypes()[2], 5);
    }
  }
}
