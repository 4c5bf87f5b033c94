// A stream as live555 serves it: one source, made for the first client and
// shared by all who follow. Event-loop thread, but for signalNewFrame().
#pragma once

#include <OnDemandServerMediaSubsession.hh>
#include <functional>
#include <map>
#include <memory>
#include <set>

#include "base/threadannotations.h"
#include "eventloop/eventlooprole.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/tcpviewers.h"

namespace kavo {

// What the two payload formats share; they add the source and the sink.
class LiveDemandSession : public OnDemandServerMediaSubsession {
 public:
  // Any thread, after a frame was queued: wakes every open source.
  virtual void signalNewFrame(TaskScheduler* scheduler) KAVO_EXCLUDES(m_Mutex);

  // Closes every open source.
  virtual void closeSession() KAVO_REQUIRES(eventLoopRole) KAVO_EXCLUDES(m_Mutex);

 protected:
  // estimatedBitrate in kbit/s: for the SDP's bandwidth line and RTCP's share.
  LiveDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler, bool reuseFirstSource,
                    unsigned estimatedBitrate) KAVO_REQUIRES(eventLoopRole);
  ~LiveDemandSession() override;

  FramedSource* createNewStreamSource(unsigned clientSessionId, unsigned& estBitrate) override;
  void closeStreamSource(FramedSource* inputSource) override;
  // Presents a viewer over TCP to live555 as a destination of our groupsocks.
  void getStreamParameters(unsigned clientSessionId, sockaddr_storage const& clientAddress, Port const& clientRTPPort,
                           Port const& clientRTCPPort, int tcpSocketNum, unsigned char rtpChannelId,
                           unsigned char rtcpChannelId, TLSState* tlsState, sockaddr_storage& destinationAddress,
                           u_int8_t& destinationTTL, Boolean& isMulticast, Port& serverRTPPort, Port& serverRTCPPort,
                           void*& streamToken) override;
  Groupsock* createGroupsock(sockaddr_storage const& address, Port port) override;
  void startStream(unsigned clientSessionId, void* streamToken, TaskFunc* rtcpRRHandler, void* rtcpRRHandlerClientData,
                   unsigned short& rtpSeqNum, unsigned& rtpTimestamp,
                   ServerRequestAlternativeByteHandler* alternativeByteHandler,
                   void* alternativeByteHandlerClientData) override;
  void deleteStream(unsigned clientSessionId, void*& streamToken) override;

  // A viewer begins to play, as the first of a stream that stood still or as one
  // more. Whether it is to be let in at once; if not, letWaitingIn() follows.
  virtual bool admit(FramedSource* source, bool first) KAVO_REQUIRES(eventLoopRole) = 0;
  // Lets all viewers in that had to wait.
  void letWaitingIn() KAVO_REQUIRES(eventLoopRole);

  // What fits every ordinary path, with room for tunnels on the way.
  static constexpr unsigned largestPacket = 1400;

  FrameSourceHandler& queue() { return *m_FrameSourceHandler; }

  virtual FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole) = 0;
  // Any thread, with m_Mutex held, so that the source is not being closed.
  virtual void wakeSource(TaskScheduler* scheduler, FramedSource* source) = 0;

 private:
  void fitPacketsTo(sockaddr_storage const& address) KAVO_REQUIRES(eventLoopRole);
  void restartSoon(int64_t microseconds) KAVO_REQUIRES(eventLoopRole);
  Destinations* destinationsOf(unsigned clientSessionId) KAVO_REQUIRES(eventLoopRole);
  void restartWithNarrowerPackets() KAVO_REQUIRES(eventLoopRole);

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  unsigned const m_EstimatedBitrate;
  std::shared_ptr<TcpViewers> m_TcpViewers = std::make_shared<TcpViewers>();
  StreamState* m_Started KAVO_GUARDED_BY(eventLoopRole) = nullptr;   // the stream whose sink has begun to play
  StreamState* m_Starting KAVO_GUARDED_BY(eventLoopRole) = nullptr;  // the one that was last asked to play
  unsigned m_PacketSize KAVO_GUARDED_BY(eventLoopRole) = largestPacket;
  TaskToken m_RestartTask KAVO_GUARDED_BY(eventLoopRole) = nullptr;
  std::set<unsigned> m_Playing KAVO_GUARDED_BY(eventLoopRole);  // client session ids
  std::map<unsigned, std::function<void()>> m_Waiting KAVO_GUARDED_BY(eventLoopRole);
  Mutex m_Mutex;
  std::set<FramedSource*> m_Sources KAVO_GUARDED_BY(m_Mutex);
};

}  // namespace kavo
