#include <GroupsockHelper.hh>
#include <JPEGVideoRTPSink.hh>
#include <OnDemandServerMediaSubsession.hh>
#include <RTSPServer.hh>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "operate/statuspage.h"
#include "eventloop/epollscheduler.h"
#include "eventloop/quietusageenvironment.h"
#include "kavo_stream.h"
#include "rtsp/jpegdemandsession.h"
#include "rtsp/jpegsource.h"
#include "server.h"
#include "server/rtspserver.h"

extern "C" {
#include <libavcodec/packet.h>
}

using namespace kavo::impl;

namespace {

// Our source in live555's own on-demand session and sink.
class StockSession : public OnDemandServerMediaSubsession {
 public:
  StockSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      : OnDemandServerMediaSubsession(env, True), m_Handler(std::move(handler)) {}

  // Any thread.
  void signalNewFrame(TaskScheduler* scheduler) { JpegSource::signalNewFrameData(scheduler, m_Source); }

 protected:
  FramedSource* createNewStreamSource(unsigned, unsigned& estBitrate) override {
    eventLoopRole.assertHeld();
    estBitrate = 64;
    FramedSource* const source = JpegSource::createNew(envir(), m_Handler);
    m_Source = source;
    return source;
  }
  void closeStreamSource(FramedSource* source) override {
    m_Source = nullptr;
    OnDemandServerMediaSubsession::closeStreamSource(source);
  }
  RTPSink* createNewRTPSink(Groupsock* groupsock, unsigned char, FramedSource*) override {
    return JPEGVideoRTPSink::createNew(envir(), groupsock);
  }

 private:
  std::shared_ptr<FrameSourceHandler> m_Handler;
  std::atomic<FramedSource*> m_Source = nullptr;  // not closed while frames are pushed
};

class LiveServer : public BenchServer {
 public:
  LiveServer(Setup const& setup, bool stock) {
    EventLoopRole::Holder const role(eventLoopRole);
    status::open();  // where the environment asks for it
    m_Scheduler.reset(stock ? static_cast<TaskScheduler*>(BasicTaskScheduler::createNew())
                            : EpollScheduler::createNew(10000));
    m_Environment = QuietUsageEnvironment::createNew(*m_Scheduler);
    OutPacketBuffer::maxSize = 8000000;
    m_Server = stock ? RTSPServer::createNew(*m_Environment, setup.port)
                     : RtspServer::createNew(*m_Environment, setup.port, 65, std::make_shared<Policy>());
    if (m_Server == nullptr) {
      std::fprintf(stderr, "port %d is taken\n", setup.port);
      std::exit(1);
    }
    for (int i = 0; i < setup.streams; ++i) {
      auto const queue = std::make_shared<FrameSourceHandler>();
      kv_status_stream description{};
      description.codec = KV_CODEC_MJPEG;
      queue->status().take(std::to_string(i), description);
      auto* const media = ServerMediaSession::createNew(*m_Environment, std::to_string(i).c_str(), "i", "d");
      m_Server->addServerMediaSession(media);
      if (stock) {
        auto* const session = new StockSession(*m_Environment, queue);
        media->addSubsession(session);
        m_Streams.push_back({queue, [=, this] { session->signalNewFrame(m_Scheduler.get()); }});
      } else {
        auto* const session = JpegDemandSession::createNew(*m_Environment, queue);
        media->addSubsession(session);
        m_Streams.push_back({queue, [=, this] { session->signalNewFrame(m_Scheduler.get()); }});
      }
    }
    m_Thread = std::thread([this] {
      EventLoopRole::Holder const loopRole(eventLoopRole);
      m_Scheduler->doEventLoop(&m_Stop);
    });
  }

  ~LiveServer() override {
    m_Stop = 1;
    m_Thread.join();
    EventLoopRole::Holder const role(eventLoopRole);
    Medium::close(m_Server);
    m_Scheduler.reset();
    m_Environment->reclaim();
  }

  void push(std::span<std::uint8_t const> image) override {
    for (auto const& [queue, signal] : m_Streams) {
      queue->noteSubmit();
      if (!queue->IsStreaming() || !queue->IsBufferFree()) {
        continue;
      }
      FrameSourceHandler::FrameData frame{};
      av_new_packet(&frame.packet, static_cast<int>(image.size()));
      std::memcpy(frame.packet.data, image.data(), image.size());
      FrameSourceHandler::setSubmitTime(frame.packet, std::chrono::steady_clock::now());
      queue->push(frame);
      signal();
    }
  }

 private:
  struct Stream {
    std::shared_ptr<FrameSourceHandler> queue;
    std::function<void()> signal;
  };

  std::unique_ptr<TaskScheduler> m_Scheduler;
  UsageEnvironment* m_Environment;
  RTSPServer* m_Server;
  std::vector<Stream> m_Streams;
  char volatile m_Stop = 0;
  std::thread m_Thread;
};

}  // namespace

std::unique_ptr<BenchServer> makeOurServer(BenchServer::Setup const& setup) {
  return std::make_unique<LiveServer>(setup, false);
}

std::unique_ptr<BenchServer> makeStockServer(BenchServer::Setup const& setup) {
  return std::make_unique<LiveServer>(setup, true);
}
