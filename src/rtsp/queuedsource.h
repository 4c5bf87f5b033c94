// The common part of the sources: they deliver frames from a stream's queue when the sink
// requests one or a host thread has queued one. Event-loop thread, except
// signalNewFrameData().
#pragma once

#include <FramedSource.hh>
#include <algorithm>
#include <memory>
#include <utility>

#include "delivery/frame.h"
#include "eventloop/contained.h"
#include "eventloop/loophandles.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/presentationclock.h"

namespace kavo::impl {

// Base is the live555 source class that the sink requires. Instead of live555's buffer it
// fills a Frame, which grows as needed and then belongs to the sink.
template <class Base>
class QueuedSource : public Base {
 public:
  // Any thread. Wakes the event loop for a frame. Does nothing for a null pointer or a
  // source of another type.
  static void signalNewFrameData(TaskScheduler* scheduler, FramedSource* source) {
    auto* queued = dynamic_cast<QueuedSource*>(source);
    if (scheduler != nullptr && queued != nullptr) {
      queued->m_Trigger.fire();
    }
  }

  // The frame delivered last; null if there was no memory for it. Call once for each frame.
  FramePtr takeFrame() KAVO_REQUIRES(eventLoopRole) { return std::move(m_Frame); }

 protected:
  // Frames queued before this source existed are stale.
  QueuedSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole)
      : Base(env),
        m_FrameSourceHandler(std::move(handler)),
        m_Trigger(env.taskScheduler(), [this]() KAVO_REQUIRES(eventLoopRole) { deliverFrame(); }) {
    m_FrameSourceHandler->clear();
    m_FrameSourceHandler->SetStreaming(true);
  }

  ~QueuedSource() override {
    eventLoopRole.assertHeld();
    m_FrameSourceHandler->SetStreaming(false);
    m_FrameSourceHandler->clear();
  }

  // A frame may have been queued while the sink was not waiting. The loop delivers it, to
  // avoid nesting and so that sockets are served in between.
  void doGetNextFrame() override {
    eventLoopRole.assertHeld();
    if (!m_FrameSourceHandler->empty()) {
      m_Trigger.fire();
    }
  }

  // Copies the first deliverable bytes of the packet to fTo and sets fFrameSize.
  virtual void copyFrame(AVPacket const& packet, unsigned deliverable) KAVO_REQUIRES(eventLoopRole) = 0;

 private:
  // Delivers at most one frame, because the sink requests each; skips empty ones.
  void deliverFrame() KAVO_REQUIRES(eventLoopRole) {
    while (this->isCurrentlyAwaitingData() && !m_FrameSourceHandler->empty()) {
      AVPacket const packet = m_FrameSourceHandler->front().packet;
      bool const isFrame = packet.data != nullptr;
      if (isFrame && !contained([&]() KAVO_REQUIRES(eventLoopRole) { deliver(packet); })) {
        m_Frame = nullptr;
      }
      m_FrameSourceHandler->pop();
      if (isFrame) {
        FramedSource::afterGetting(this);
        return;
      }
    }
  }

  void deliver(AVPacket const& packet) KAVO_REQUIRES(eventLoopRole) {
    m_Frame = m_Pool.take();
    m_Frame->submitted = FrameSourceHandler::submitTime(packet);
    auto const size = static_cast<unsigned>(packet.size);
    auto const room = m_Frame->reserve(size);
    this->fTo = room.data();
    this->fMaxSize = static_cast<unsigned>(room.size());
    unsigned const deliverable = std::min(size, this->fMaxSize);
    this->fNumTruncatedBytes = size - deliverable;
    this->fPresentationTime = presentationTime(m_Frame->submitted);
    copyFrame(packet, deliverable);
    m_FrameSourceHandler->observer().delivered(m_Frame->submitted);
  }

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  EventTrigger m_Trigger;
  FramePool m_Pool KAVO_GUARDED_BY(eventLoopRole);
  FramePtr m_Frame KAVO_GUARDED_BY(eventLoopRole);
};

}  // namespace kavo::impl
