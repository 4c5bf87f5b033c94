#include <GroupsockHelper.hh>
#include <JPEGVideoRTPSink.hh>
#include <JPEGVideoSource.hh>
#include <OnDemandServerMediaSubsession.hh>
#include <RTSPServer.hh>
#include <algorithm>
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

#include "eventloop/epollscheduler.h"
#include "eventloop/quietusageenvironment.h"
#include "kavo_stream.h"
#include "operate/journal.h"
#include "rtp/jpegheader.h"
#include "rtsp/jpegdemandsession.h"
#include "rtsp/presentationclock.h"
#include "server.h"
#include "server/rtspserver.h"
#include "server/statusserver.h"

extern "C" {
#include <libavcodec/packet.h>
}

using namespace kavo::impl;

namespace {

// A source with frames of our queue for live555's own on-demand session, sink and scheduler.
class StockSource : public JPEGVideoSource {
 public:
  StockSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      : JPEGVideoSource(env),
        m_Handler(std::move(handler)),
        m_Trigger(env.taskScheduler().createEventTrigger(deliver)) {
    m_Handler->clear();
    m_Handler->SetStreaming(true);
  }
  ~StockSource() override {
    m_Handler->SetStreaming(false);
    envir().taskScheduler().deleteEventTrigger(m_Trigger);
  }
  // Any thread.
  void signal(TaskScheduler* scheduler) { scheduler->triggerEvent(m_Trigger, this); }

  u_int8_t type() override { return 1; }
  u_int8_t qFactor() override { return 195; }
  u_int8_t width() override { return m_Header.size->width; }
  u_int8_t height() override { return m_Header.size->height; }
  u_int8_t const* quantizationTables(u_int8_t& precision, u_int16_t& length) override {
    precision = 8;
    length = m_Header.tables ? static_cast<u_int16_t>(m_Header.tables->size()) : 0;
    return m_Header.tables ? m_Header.tables->data() : nullptr;
  }

 private:
  void doGetNextFrame() override { signal(&envir().taskScheduler()); }

  static void deliver(void* source) {
    auto& self = *static_cast<StockSource*>(source);
    if (!self.isCurrentlyAwaitingData() || self.m_Handler->empty()) {
      return;
    }
    AVPacket const packet = self.m_Handler->front().packet;
    std::span const image(packet.data, static_cast<std::size_t>(packet.size));
    self.m_Header = readJpegHeader(image);
    auto const scan = image.subspan(self.m_Header.length);
    self.fFrameSize = std::min(static_cast<unsigned>(scan.size()), self.fMaxSize);
    std::memcpy(self.fTo, scan.data(), self.fFrameSize);
    self.fPresentationTime = presentationTime(FrameSourceHandler::submitTime(packet));
    self.m_Handler->pop();
    FramedSource::afterGetting(&self);
  }

  std::shared_ptr<FrameSourceHandler> m_Handler;
  EventTriggerId m_Trigger;
  JpegHeader m_Header;
};

class StockSession : public OnDemandServerMediaSubsession {
 public:
  StockSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler)
      : OnDemandServerMediaSubsession(env, True), m_Handler(std::move(handler)) {}

  // Any thread.
  void signalNewFrame(TaskScheduler* scheduler) {
    if (StockSource* const source = m_Source) {
      source->signal(scheduler);
    }
  }

 protected:
  FramedSource* createNewStreamSource(unsigned, unsigned& estBitrate) override {
    estBitrate = 64;
    return m_Source = new StockSource(envir(), m_Handler);
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
  std::atomic<StockSource*> m_Source = nullptr;  // not closed while frames are pushed
};

class LiveServer : public BenchServer {
 public:
  LiveServer(Setup const& setup, bool stock) {
    EventLoopRole::Holder const role(eventLoopRole);
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
      queue->observer().describe({std::to_string(i), KV_CODEC_MJPEG, 640, 480});
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
    if (char const* const address = std::getenv("KAVO_STREAM_STATUS"); address != nullptr && !stock) {
      g_Journal->open();
      m_Status = StatusServer::createNew(*m_Scheduler, address, std::make_shared<DescriptorBudget>(),
                                         [] { return ServerFigures(); });
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
    m_Status.reset();
    Medium::close(m_Server);
    m_Scheduler.reset();
    m_Environment->reclaim();
  }

  void push(std::span<std::uint8_t const> image) override {
    for (auto const& [queue, signal] : m_Streams) {
      queue->observer().add(Count::Offered);
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
  std::unique_ptr<StatusServer> m_Status;
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
