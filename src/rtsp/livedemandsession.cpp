#include "rtsp/livedemandsession.h"

#include <GroupsockHelper.hh>
#include <utility>

namespace kavo::impl {

namespace {
constexpr portNumBits firstServerPort = 6970;
}

LiveDemandSession::LiveDemandSession(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler,
                                     bool reuseFirstSource, unsigned estimatedBitrate, DeliveryContext const& context)
    : OnDemandServerMediaSubsession(env, reuseFirstSource ? True : False, firstServerPort, False),
      m_FrameSourceHandler(std::move(handler)),
      m_EstimatedBitrate(estimatedBitrate),
      m_Viewers(env.taskScheduler(), context, *this, m_FrameSourceHandler->observer()) {}

LiveDemandSession::~LiveDemandSession() {
  eventLoopRole.assertHeld();
  closeSource();
  m_Sink.close();
}

void LiveDemandSession::Sink::close() {
  if (live != nullptr) {
    Medium::close(&std::exchange(live, nullptr)->rtp());
  }
  groupsock.reset();
}

void LiveDemandSession::wantKeyFrame(bool wanted) {
  auto& request = m_FrameSourceHandler->keyFrameRequest();
  if (!hasKeyFramesOnly()) {
    wanted ? request.ask() : request.withdraw();
  }
}

void LiveDemandSession::signalNewFrame(TaskScheduler* scheduler) {
  MutexLock lock(m_Mutex);
  if (m_Source != nullptr) {
    wakeSource(scheduler, m_Source);
  }
}

void LiveDemandSession::closeSession() { closeSource(); }

void LiveDemandSession::closeSource() {
  FramedSource* source = nullptr;
  {
    MutexLock lock(m_Mutex);
    source = m_Source;
  }
  if (source != nullptr) {
    m_Sink.live->rtp().stopPlaying();
    m_Viewers.forgetFrames();
    LiveDemandSession::closeStreamSource(source);
  }
}

FramedSource* LiveDemandSession::createNewStreamSource(unsigned /*clientSessionId*/, unsigned& estBitrate) {
  eventLoopRole.assertHeld();
  estBitrate = m_EstimatedBitrate;
  FramedSource* const source = openSource(m_FrameSourceHandler);
  MutexLock lock(m_Mutex);
  m_Source = source;
  return source;
}

// Clears m_Source first, so that no host thread signals it, and closes outside the lock.
void LiveDemandSession::closeStreamSource(FramedSource* inputSource) {
  {
    MutexLock lock(m_Mutex);
    if (m_Source == inputSource) {
      m_Source = nullptr;
    }
  }
  OnDemandServerMediaSubsession::closeStreamSource(inputSource);
}

LiveDemandSession::Sink LiveDemandSession::makeSink(int addressFamily) {
  constexpr unsigned char firstDynamicPayloadType = 96;
  Sink sink;
  sink.groupsock = std::make_unique<Groupsock>(envir(), nullAddress(addressFamily), Port(0), 255);
  auto const payloadType = static_cast<unsigned char>(firstDynamicPayloadType + trackNumber() - 1);
  sink.live = newSink(sink.groupsock.get(), payloadType, m_FrameSourceHandler->parameterSets());
  sink.groupsock->reset();
  return sink;
}

RTPSink* LiveDemandSession::createNewRTPSink(Groupsock* rtpGroupsock, unsigned char rtpPayloadTypeIfDynamic,
                                             FramedSource* /*inputSource*/) {
  eventLoopRole.assertHeld();
  return &newSink(rtpGroupsock, rtpPayloadTypeIfDynamic, m_FrameSourceHandler->parameterSets())->rtp();
}

// Describes the stream without a source, so that nothing is encoded for it and no viewer
// loses a frame. The address is of the client's family.
char const* LiveDemandSession::sdpLines(int addressFamily) {
  eventLoopRole.assertHeld();
  unsigned const parameterSets = m_FrameSourceHandler->parameterSetChanges();
  if (addressFamily != m_DescribedFamily || parameterSets != m_DescribedParameterSets) {
    m_DescribedFamily = AF_UNSPEC;
    Sink sink = makeSink(addressFamily);
    try {
      setSDPLinesFromRTPSink(&sink.live->rtp(), nullptr, m_EstimatedBitrate);
    } catch (...) {
      fSDPLines = nullptr;  // live555 has freed it, but had no memory for the new one
      sink.close();
      throw;
    }
    sink.close();
    m_DescribedFamily = addressFamily;
    m_DescribedParameterSets = parameterSets;
  }
  return fSDPLines;
}

// The client gets an error response if there is no stream token.
void LiveDemandSession::getStreamParameters(unsigned /*clientSessionId*/, sockaddr_storage const& clientAddress,
                                            Port const& clientRTPPort, Port const& clientRTCPPort, int tcpSocketNum,
                                            unsigned char rtpChannelId, unsigned char rtcpChannelId,
                                            TLSState* /*tlsState*/, sockaddr_storage& destinationAddress,
                                            u_int8_t& /*destinationTTL*/, Boolean& isMulticast, Port& serverRTPPort,
                                            Port& serverRTCPPort, void*& streamToken) {
  eventLoopRole.assertHeld();
  destinationAddress = clientAddress;
  isMulticast = False;
  if (tcpSocketNum >= 0) {
    streamToken = m_Viewers.addInterleaved(rtpChannelId, rtcpChannelId);
    return;
  }
  streamToken = m_Viewers.addUdp(clientAddress, ntohs(clientRTPPort.num()), ntohs(clientRTCPPort.num()));
  if (streamToken != nullptr) {
    std::uint16_t const port = m_Viewers.serverPort(clientAddress.ss_family);
    serverRTPPort = Port(port);
    serverRTCPPort = Port(static_cast<portNumBits>(port + 1));
  }
}

void LiveDemandSession::startStream(unsigned /*clientSessionId*/, void* streamToken, TaskFunc* /*rtcpRRHandler*/,
                                    void* /*rtcpRRHandlerClientData*/, unsigned short& rtpSeqNum,
                                    unsigned& rtpTimestamp,
                                    ServerRequestAlternativeByteHandler* /*alternativeByteHandler*/,
                                    void* /*alternativeByteHandlerClientData*/) {
  eventLoopRole.assertHeld();
  auto* const viewer = static_cast<Viewer*>(streamToken);
  if (viewer == nullptr) {
    return;
  }
  if (m_Sink.live == nullptr) {
    m_Sink = makeSink(AF_INET);
  }
  auto const first = startSource(*viewer).value_or(std::chrono::steady_clock::now());
  // Sequence number and time of the viewer's first packet.
  Frame const* const newest = m_Viewers.play(*viewer);
  rtpSeqNum = newest != nullptr ? newest->packets.header().sequence : m_Sink.live->rtp().currentSeqNo();
  rtpTimestamp = newest != nullptr ? newest->packets.header().timestamp : m_Sink.live->rtpTimeAt(first);
}

// Returns the submit time of the requeued frame that the source starts with, if any.
std::optional<std::chrono::steady_clock::time_point> LiveDemandSession::startSource(Viewer const& viewer) {
  {
    MutexLock lock(m_Mutex);
    if (m_Source != nullptr) {
      return std::nullopt;
    }
  }
  unsigned bitrate = 0;
  FramedSource* const source = createNewStreamSource(0, bitrate);
  auto const newest = viewer.hasPlayed() ? std::nullopt : m_FrameSourceHandler->requeueNewest();
  m_Sink.live->rtp().startPlaying(*source, nullptr, nullptr);
  return newest;
}

void LiveDemandSession::pauseStream(unsigned /*clientSessionId*/, void* streamToken) {
  eventLoopRole.assertHeld();
  if (streamToken != nullptr) {
    m_Viewers.pause(*static_cast<Viewer*>(streamToken));
    stopSourceIfUnused();
  }
}

void LiveDemandSession::deleteStream(unsigned /*clientSessionId*/, void*& streamToken) {
  eventLoopRole.assertHeld();
  if (streamToken == nullptr) {
    return;
  }
  m_Viewers.remove(*static_cast<Viewer*>(std::exchange(streamToken, nullptr)));
  stopSourceIfUnused();
  if (m_Viewers.empty()) {
    m_Sink.close();
  }
}

void LiveDemandSession::stopSourceIfUnused() {
  if (!m_Viewers.anyActive()) {
    closeSource();
  }
}

// There is no clock before the first PLAY; nothing is sent then.
SenderInfo LiveDemandSession::senderInfo() { return m_Sink.live != nullptr ? m_Sink.live->senderInfo() : SenderInfo{}; }

void LiveDemandSession::seekStream(unsigned /*clientSessionId*/, void* /*streamToken*/, double& /*seekNPT*/,
                                   double /*streamDuration*/, u_int64_t& numBytes) {
  numBytes = 0;
}

void LiveDemandSession::seekStream(unsigned /*clientSessionId*/, void* /*streamToken*/, char*& /*absStart*/,
                                   char*& /*absEnd*/) {}

void LiveDemandSession::nullSeekStream(unsigned /*clientSessionId*/, void* /*streamToken*/, double /*streamEndTime*/,
                                       u_int64_t& numBytes) {
  numBytes = 0;
}

void LiveDemandSession::setStreamScale(unsigned /*clientSessionId*/, void* /*streamToken*/, float /*scale*/) {}

float LiveDemandSession::getCurrentNPT(void* /*streamToken*/) {
  eventLoopRole.assertHeld();
  if (m_Sink.live == nullptr) {
    return 0;
  }
  timeval const& first = m_Sink.live->rtp().initialPresentationTime();
  timeval const& last = m_Sink.live->rtp().mostRecentPresentationTime();
  return static_cast<float>(last.tv_sec - first.tv_sec) + static_cast<float>(last.tv_usec - first.tv_usec) / 1e6F;
}

FramedSource* LiveDemandSession::getStreamSource(void* /*streamToken*/) {
  MutexLock lock(m_Mutex);
  return m_Source;
}

void LiveDemandSession::getRTPSinkandRTCP(void* /*streamToken*/, RTPSink*& rtpSink, RTCPInstance*& rtcp) {
  eventLoopRole.assertHeld();
  rtpSink = m_Sink.live != nullptr ? &m_Sink.live->rtp() : nullptr;
  rtcp = nullptr;
}

}  // namespace kavo::impl
