#include "rtsp/livedemandsession.h"

#include <netinet/in.h>
#include <sys/time.h>

#include <GroupsockHelper.hh>
#include <MultiFramedRTPSink.hh>
#include <cstdint>
#include <utility>

#include "delivery/pathmtu.h"
#include "rtsp/picturegroupsock.h"

namespace kavo {

namespace {

constexpr portNumBits firstServerPort = 6970;

// live555 lets only derived classes read a sink's clock.
struct SinkClock : RTPSink {
  static u_int32_t now(RTPSink& sink) {
    timeval now{};
    gettimeofday(&now, nullptr);
    return (sink.*&SinkClock::convertToRTPTimestamp)(now);
  }
};

}  // namespace

LiveDemandSession::LiveDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                     bool reuseFirstSource, unsigned estimatedBitrate)
    : OnDemandServerMediaSubsession(env, reuseFirstSource ? True : False, firstServerPort, False),
      m_FrameSourceHandler(std::move(handler)),
      m_EstimatedBitrate(estimatedBitrate) {}

LiveDemandSession::~LiveDemandSession() {
  eventLoopRole.assertHeld();
  envir().taskScheduler().unscheduleDelayedTask(m_RestartTask);
}

void LiveDemandSession::signalNewFrame(TaskScheduler* scheduler) {
  Locked lock(m_Mutex);
  for (FramedSource* source : m_Sources) {
    wakeSource(scheduler, source);
  }
}

void LiveDemandSession::closeSession() {
  std::set<FramedSource*> sources;
  {
    Locked lock(m_Mutex);
    sources.swap(m_Sources);
  }
  for (FramedSource* source : sources) {
    Medium::close(source);
  }
}

FramedSource* LiveDemandSession::createNewStreamSource(unsigned /*clientSessionId*/, unsigned& estBitrate) {
  eventLoopRole.assertHeld();
  estBitrate = m_EstimatedBitrate;
  FramedSource* source = openSource(m_FrameSourceHandler);
  if (source != nullptr) {
    Locked lock(m_Mutex);
    m_Sources.insert(source);
  }
  return source;
}

void LiveDemandSession::closeStreamSource(FramedSource* inputSource) {
  eventLoopRole.assertHeld();
  bool othersOpen = false;
  {
    // Out of the set first: from then on no host thread wakes it, and the slow
    // part, closing it, keeps none of them waiting.
    Locked lock(m_Mutex);
    m_Sources.erase(inputSource);
    othersOpen = !m_Sources.empty();
  }
  OnDemandServerMediaSubsession::closeStreamSource(inputSource);
  // The closed source took the streaming flag with it. One that is still open
  // (a client set up without a DESCRIBE, and another's DESCRIBE made and closed
  // its own just now) would never see a frame again.
  if (othersOpen) {
    m_FrameSourceHandler->SetStreaming(true);
  }
}

void LiveDemandSession::getStreamParameters(unsigned clientSessionId, sockaddr_storage const& clientAddress,
                                            Port const& clientRTPPort, Port const& clientRTCPPort, int tcpSocketNum,
                                            unsigned char rtpChannelId, unsigned char rtcpChannelId, TLSState* tlsState,
                                            sockaddr_storage& destinationAddress, u_int8_t& destinationTTL,
                                            Boolean& isMulticast, Port& serverRTPPort, Port& serverRTCPPort,
                                            void*& streamToken) {
  eventLoopRole.assertHeld();
  auto const output = InterleavedWriter::of(tcpSocketNum);
  bool const tcp = output != nullptr;
  if (tcp) {
    (*m_TcpViewers)[clientSessionId] = {output, rtpChannelId, rtcpChannelId};
    // Of the family that most UDP viewers have, for whom this may open the sockets.
    destinationAddress = nullAddress(AF_INET);
    reinterpret_cast<sockaddr_in&>(destinationAddress).sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }
  OnDemandServerMediaSubsession::getStreamParameters(
      clientSessionId, clientAddress, tcp ? Port(rtpOverTcpPort) : clientRTPPort,
      tcp ? Port(rtcpOverTcpPort) : clientRTCPPort, tcp ? -1 : tcpSocketNum, rtpChannelId, rtcpChannelId, tlsState,
      destinationAddress, destinationTTL, isMulticast, serverRTPPort, serverRTCPPort, streamToken);
  if (tcp) {
    destinationAddress = clientAddress;  // for the response
  }
}

Groupsock* LiveDemandSession::createGroupsock(sockaddr_storage const& address, Port port) {
  eventLoopRole.assertHeld();
  PictureGroupsock::Callbacks callbacks;
  callbacks.keyPictureWanted = [this] { m_FrameSourceHandler->keyFrameRequest().ask(); };
  callbacks.pathTooNarrow = [this](sockaddr_storage const& destination) {
    eventLoopRole.assertHeld();
    fitPacketsTo(destination);
  };
  return new PictureGroupsock(envir(), address, port, m_TcpViewers, std::move(callbacks));
}

// The narrowest path decides for all, since the viewers share the packets.
void LiveDemandSession::fitPacketsTo(sockaddr_storage const& address) {
  unsigned const size = largestPayloadTo(address).value_or(largestPacket);
  if (size >= m_PacketSize || m_Starting == nullptr) {
    return;
  }
  m_PacketSize = size;
  if (m_Starting != m_Started) {
    static_cast<MultiFramedRTPSink*>(m_Starting->rtpSink())->setPacketSizes(size, size);
  } else if (m_RestartTask == nullptr) {
    // Not here: the sink may be the caller.
    restartSoon(0);
  }
}

void LiveDemandSession::restartSoon(int64_t microseconds) {
  m_RestartTask = envir().taskScheduler().scheduleDelayedTask(
      microseconds,
      [](void* session) {
        eventLoopRole.assertHeld();
        static_cast<LiveDemandSession*>(session)->restartWithNarrowerPackets();
      },
      this);
}

// A sink gets a new buffer with its new packet size, so the old one must be
// neither half sent nor asked to be filled.
void LiveDemandSession::restartWithNarrowerPackets() {
  constexpr int64_t restOfPicture = 1000;
  auto* const sink = static_cast<MultiFramedRTPSink*>(m_Started->rtpSink());
  if (static_cast<PictureGroupsock const&>(sink->groupsockBeingUsed()).isInsidePicture()) {
    restartSoon(restOfPicture);
    return;
  }
  m_RestartTask = nullptr;
  m_Started->pause();
  sink->setPacketSizes(m_PacketSize, m_PacketSize);
  if (!m_Playing.empty()) {
    unsigned const anyone = *m_Playing.begin();
    m_Started->startPlaying(destinationsOf(anyone), anyone, nullptr, nullptr, nullptr, nullptr);
  } else if (!m_Waiting.empty()) {
    admit(m_Started->mediaSource(), true);
    letWaitingIn();
  } else {
    m_Started = nullptr;  // until somebody plays
  }
}

Destinations* LiveDemandSession::destinationsOf(unsigned clientSessionId) {
  // live555's table takes numbers in a pointer's clothes.
  auto const* key =
      reinterpret_cast<char const*>(std::uintptr_t{clientSessionId});  // NOLINT(performance-no-int-to-ptr)
  return static_cast<Destinations*>(fDestinationsHashTable->Lookup(key));
}

void LiveDemandSession::startStream(unsigned clientSessionId, void* streamToken, TaskFunc* rtcpRRHandler,
                                    void* rtcpRRHandlerClientData, unsigned short& rtpSeqNum, unsigned& rtpTimestamp,
                                    ServerRequestAlternativeByteHandler* alternativeByteHandler,
                                    void* alternativeByteHandlerClientData) {
  eventLoopRole.assertHeld();
  auto* stream = static_cast<StreamState*>(streamToken);
  if (stream == nullptr || stream->rtpSink() == nullptr) {
    return;
  }
  auto const start = [=, this] {
    eventLoopRole.assertHeld();
    stream->startPlaying(destinationsOf(clientSessionId), clientSessionId, rtcpRRHandler, rtcpRRHandlerClientData,
                         alternativeByteHandler, alternativeByteHandlerClientData);
  };
  // For the response. live555's own way here is presetNextTimestamp(), which
  // shifts the time stamps of a stream that others are watching.
  rtpSeqNum = stream->rtpSink()->currentSeqNo();
  rtpTimestamp = SinkClock::now(*stream->rtpSink());

  bool const again = m_Playing.contains(clientSessionId);
  m_Starting = stream;
  if (auto const* const destinations = destinationsOf(clientSessionId);
      destinations != nullptr && !m_TcpViewers->contains(clientSessionId)) {
    fitPacketsTo(destinations->addr);
  }
  if (again || admit(stream->mediaSource(), m_Playing.empty())) {
    m_Playing.insert(clientSessionId);
    start();
    m_Started = stream;
  } else {
    m_Waiting[clientSessionId] = start;
  }
}

void LiveDemandSession::letWaitingIn() {
  for (auto const& [clientSessionId, start] : std::exchange(m_Waiting, {})) {
    m_Playing.insert(clientSessionId);
    start();
  }
}

void LiveDemandSession::deleteStream(unsigned clientSessionId, void*& streamToken) {
  eventLoopRole.assertHeld();
  m_Playing.erase(clientSessionId);
  m_Waiting.erase(clientSessionId);
  m_TcpViewers->erase(clientSessionId);
  OnDemandServerMediaSubsession::deleteStream(clientSessionId, streamToken);
  if (streamToken == nullptr) {
    m_Started = nullptr;
    m_Starting = nullptr;
    m_PacketSize = largestPacket;
    envir().taskScheduler().unscheduleDelayedTask(m_RestartTask);
  }
}

}  // namespace kavo
