// When a stream's frames are wanted: the streaming flag, which the host's submits obey.
#include <gtest/gtest.h>
#include <unistd.h>

#include "base/streamexception.h"
#include "rtsp/jpegdemandsession.h"
#include "session/streamenvironment.h"
#include "system/rtspclient.h"

using namespace kavo::impl;

TEST(LiveDemandSession, OnlyWhoeverPlaysMakesSomebodyEncode) {
  StreamEnvironment environment;
  unsigned port = 20000 + static_cast<unsigned>(getpid() % 20000);
  for (bool started = false; !started; ++port) {
    try {
      environment.start(port);
      started = true;
    } catch (StreamException const&) {
      ASSERT_LT(port, 60000U);
    }
  }
  auto const queue = std::make_shared<FrameSourceHandler>();
  environment.runOnLoop([&] {
    eventLoopRole.assertHeld();
    auto* const session = ServerMediaSession::createNew(environment.GetUsageEnvironment(), "stream", "i", "d");
    session->addSubsession(JpegDemandSession::createNew(environment.GetUsageEnvironment(), queue));
    environment.GetRTSPServer()->addServerMediaSession(session);
  });
  std::string const url = "rtsp://127.0.0.1/stream";
  RtspClient first(port - 1);
  RtspClient second(port - 1);
  auto const streaming = [&](RtspClient& client, char const* method) {
    EXPECT_EQ(
        client.request(method, method == std::string("SETUP") ? url + "/track1" : url, RtspClient::overTcp).status, 200)
        << method;
    return queue->IsStreaming();
  };
  EXPECT_FALSE(streaming(first, "DESCRIBE"));
  EXPECT_FALSE(streaming(first, "SETUP"));
  EXPECT_TRUE(streaming(first, "PLAY"));
  EXPECT_TRUE(streaming(second, "DESCRIBE")) << "a description took the others' frames away";
  EXPECT_TRUE(streaming(second, "SETUP"));
  EXPECT_FALSE(streaming(first, "PAUSE"));
  EXPECT_TRUE(streaming(second, "PLAY"));
  EXPECT_TRUE(streaming(first, "TEARDOWN"));
  EXPECT_FALSE(streaming(second, "TEARDOWN"));
  // Whose ports are set up again gets no more frames, and the new session none yet.
  RtspClient again(port - 1);
  ASSERT_TRUE(again.playOverUdp(url));
  EXPECT_TRUE(queue->IsStreaming());
  again.forgetSession();
  EXPECT_EQ(again.setUpOverUdp(url).status, 200);
  EXPECT_FALSE(queue->IsStreaming());
}
