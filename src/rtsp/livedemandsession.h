// live555's subsession for a stream: one source and one sink, shared by all viewers.
// Event-loop thread, except signalNewFrame().
#pragma once

#include <OnDemandServerMediaSubsession.hh>
#include <chrono>
#include <memory>
#include <optional>
#include <span>

#include "base/threadannotations.h"
#include "delivery/viewers.h"
#include "eventloop/eventlooprole.h"
#include "rtsp/framesink.h"
#include "rtsp/framesourcehandler.h"

namespace kavo::impl {

// The common part of all payload formats; they add the source and the sink.
//
// live555 calls the functions below for the RTSP requests that it answers. The
// stream token of a client session is its Viewer. The sink exists from the first
// PLAY until the last viewer leaves; the source exists, and frames are encoded, only
// while somebody plays.
class LiveDemandSession : public OnDemandServerMediaSubsession, public Stream {
 public:
  // Any thread. Call after queueing a frame: wakes the source if it is open.
  virtual void signalNewFrame(TaskScheduler* scheduler) KAVO_EXCLUDES(m_Mutex);

  // Closes the source if it is open.
  virtual void closeSession() KAVO_REQUIRES(eventLoopRole) KAVO_EXCLUDES(m_Mutex);

  Viewers& viewers() KAVO_REQUIRES(eventLoopRole) { return m_Viewers; }

  void wantKeyFrame(bool wanted) override KAVO_REQUIRES(eventLoopRole);
  std::chrono::steady_clock::duration freshness() const override { return m_FrameSourceHandler->freshness(); }
  SenderInfo senderInfo() override KAVO_REQUIRES(eventLoopRole);

 protected:
  // estimatedBitrate is for the SDP's bandwidth line, in kbit/s.
  LiveDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler, bool reuseFirstSource,
                    unsigned estimatedBitrate, DeliveryContext const& context) KAVO_REQUIRES(eventLoopRole);
  ~LiveDemandSession() override;

  char const* sdpLines(int addressFamily) override;
  void getStreamParameters(unsigned clientSessionId, sockaddr_storage const& clientAddress, Port const& clientRTPPort,
                           Port const& clientRTCPPort, int tcpSocketNum, unsigned char rtpChannelId,
                           unsigned char rtcpChannelId, TLSState* tlsState, sockaddr_storage& destinationAddress,
                           u_int8_t& destinationTTL, Boolean& isMulticast, Port& serverRTPPort, Port& serverRTCPPort,
                           void*& streamToken) override;
  void startStream(unsigned clientSessionId, void* streamToken, TaskFunc* rtcpRRHandler, void* rtcpRRHandlerClientData,
                   unsigned short& rtpSeqNum, unsigned& rtpTimestamp,
                   ServerRequestAlternativeByteHandler* alternativeByteHandler,
                   void* alternativeByteHandlerClientData) override;
  void pauseStream(unsigned clientSessionId, void* streamToken) override;
  void deleteStream(unsigned clientSessionId, void*& streamToken) override;
  // A live stream cannot seek or change speed. live555's versions of these would
  // misinterpret the token.
  void seekStream(unsigned clientSessionId, void* streamToken, double& seekNPT, double streamDuration,
                  u_int64_t& numBytes) override;
  void seekStream(unsigned clientSessionId, void* streamToken, char*& absStart, char*& absEnd) override;
  void nullSeekStream(unsigned clientSessionId, void* streamToken, double streamEndTime, u_int64_t& numBytes) override;
  void setStreamScale(unsigned clientSessionId, void* streamToken, float scale) override;
  float getCurrentNPT(void* streamToken) override;
  FramedSource* getStreamSource(void* streamToken) override;
  void getRTPSinkandRTCP(void* streamToken, RTPSink*& rtpSink, RTCPInstance*& rtcp) override;

  FramedSource* createNewStreamSource(unsigned clientSessionId, unsigned& estBitrate) override;
  void closeStreamSource(FramedSource* inputSource) override;

  virtual FramedSource* openSource(std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole) = 0;
  // Any thread, with m_Mutex held, so that the source cannot be closed meanwhile.
  virtual void wakeSource(TaskScheduler* scheduler, FramedSource* source) = 0;
  virtual LiveSink* newSink(Groupsock* groupsock, unsigned char payloadType,
                            std::span<std::uint8_t const> parameterSets) KAVO_REQUIRES(eventLoopRole) = 0;

  RTPSink* createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                            FramedSource* inputSource) override;

 private:
  // live555's sinks require a groupsock. Packets do not go through it, so it has no socket
  // once the sink is created.
  struct Sink {
    std::unique_ptr<Groupsock> groupsock;
    LiveSink* live = nullptr;  // closed with close()

    void close();
  };

  Sink makeSink(int addressFamily) KAVO_REQUIRES(eventLoopRole);
  void closeSource() KAVO_REQUIRES(eventLoopRole) KAVO_EXCLUDES(m_Mutex);
  std::optional<std::chrono::steady_clock::time_point> startSource(Viewer const& viewer) KAVO_REQUIRES(eventLoopRole);
  void stopSourceIfUnused() KAVO_REQUIRES(eventLoopRole);

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  unsigned const m_EstimatedBitrate;
  Viewers m_Viewers KAVO_GUARDED_BY(eventLoopRole);
  Sink m_Sink KAVO_GUARDED_BY(eventLoopRole);
  // The state that live555's cached SDP lines describe.
  int m_DescribedFamily KAVO_GUARDED_BY(eventLoopRole) = AF_UNSPEC;
  unsigned m_DescribedParameterSets KAVO_GUARDED_BY(eventLoopRole) = 0;
  Mutex m_Mutex;
  FramedSource* m_Source KAVO_GUARDED_BY(m_Mutex) = nullptr;
};

}  // namespace kavo::impl
