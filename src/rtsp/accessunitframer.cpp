#include "rtsp/accessunitframer.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace kavo {

AccessUnitFramer* AccessUnitFramer::createNew(UsageEnvironment& env, FramedSource* inputSource,
                                              std::function<void()> onKeyPicture) {
  return new AccessUnitFramer(env, inputSource, std::move(onKeyPicture));
}

AccessUnitFramer::AccessUnitFramer(UsageEnvironment& env, FramedSource* inputSource, std::function<void()> onKeyPicture)
    : H264VideoStreamDiscreteFramer(env, inputSource, False, False), m_OnKeyPicture(std::move(onKeyPicture)) {}

void AccessUnitFramer::doGetNextFrame() {
  eventLoopRole.assertHeld();
  if (m_NextUnit < m_Sizes.size()) {
    deliverNext();
    return;
  }
  // Straight into the sink's buffer: a NAL unit that is alone in its access
  // unit, as in most, stays where it is.
  fInputSource->getNextFrame(fTo, fMaxSize, afterGettingAccessUnit, this, FramedSource::handleClosure, this);
}

void AccessUnitFramer::doStopGettingFrames() {
  eventLoopRole.assertHeld();
  m_Sizes.clear();
  m_NextUnit = 0;
  H264VideoStreamDiscreteFramer::doStopGettingFrames();
}

void AccessUnitFramer::afterGettingAccessUnit(void* clientData, unsigned frameSize, unsigned truncatedBytes,
                                              timeval presentationTime, unsigned /*durationInMicroseconds*/) {
  eventLoopRole.assertHeld();
  static_cast<AccessUnitFramer*>(clientData)->receive(frameSize, truncatedBytes, presentationTime);
}

void AccessUnitFramer::receive(unsigned size, unsigned truncatedBytes, timeval presentationTime) {
  auto const nalUnits = splitAccessUnit({fTo, size});
  if (!admits(nalUnits)) {
    doGetNextFrame();
    return;
  }
  keepForLater(nalUnits);
  m_TruncatedBytes = truncatedBytes;
  m_PresentationTime = presentationTime;
  // Only behind a start code that should not have been there does it move.
  std::memmove(fTo, nalUnits[0].data(), nalUnits[0].size());
  bool const last = nalUnits.size() == 1;
  afterGettingFrame1(static_cast<unsigned>(nalUnits[0].size()), last ? truncatedBytes : 0, presentationTime, 0);
}

bool AccessUnitFramer::admits(std::vector<NalUnit> const& nalUnits) {
  bool const key = std::any_of(nalUnits.begin(), nalUnits.end(),
                               [](NalUnit nalUnit) { return typeOf(nalUnit) == NalUnitType::Idr; });
  if (key) {
    m_AwaitingKeyPicture = false;
    m_OnKeyPicture();
  }
  return !nalUnits.empty() && !m_AwaitingKeyPicture;
}

void AccessUnitFramer::keepForLater(std::vector<NalUnit> const& nalUnits) {
  m_Bytes.clear();
  m_Sizes.clear();
  m_NextUnit = 0;
  m_NextByte = 0;
  for (NalUnit const nalUnit : std::span(nalUnits).subspan(1)) {
    m_Bytes.insert(m_Bytes.end(), nalUnit.begin(), nalUnit.end());
    m_Sizes.push_back(nalUnit.size());
  }
}

void AccessUnitFramer::deliverNext() {
  std::size_t const size = m_Sizes[m_NextUnit++];
  std::size_t const delivered = std::min<std::size_t>(size, fMaxSize);
  std::memcpy(fTo, m_Bytes.data() + m_NextByte, delivered);
  m_NextByte += size;
  unsigned const lost = static_cast<unsigned>(size - delivered);
  bool const last = m_NextUnit == m_Sizes.size();
  afterGettingFrame1(static_cast<unsigned>(delivered), last ? lost + m_TruncatedBytes : lost, m_PresentationTime, 0);
}

Boolean AccessUnitFramer::nalUnitEndsAccessUnit(u_int8_t /*nalUnitType*/) {
  eventLoopRole.assertHeld();
  return m_NextUnit == m_Sizes.size() ? True : False;
}

}  // namespace kavo
