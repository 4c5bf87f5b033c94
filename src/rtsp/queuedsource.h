// What the sources of both payload formats share: they take frames out of a
// stream's queue when the sink asks for one or a host thread has queued one.
// Event-loop thread, but for signalNewFrameData().
#pragma once

#include <sys/time.h>

#include <FramedSource.hh>
#include <algorithm>
#include <memory>
#include <utility>

#include "rtsp/framesourcehandler.h"
#include "rtsp/frametrigger.h"

namespace kavo {

// Base is the source class of live555 that the sink wants.
template <class Base>
class QueuedSource : public Base {
 public:
  // Any thread: has the event loop look for a frame. Nothing happens for a null
  // pointer or a source of another type.
  static void signalNewFrameData(TaskScheduler* scheduler, FramedSource* source) {
    auto* queued = dynamic_cast<QueuedSource*>(source);
    if (scheduler != nullptr && queued != nullptr) {
      queued->m_Trigger.fire(*scheduler, queued);
    }
  }

 protected:
  QueuedSource(UsageEnvironment& env, std::shared_ptr<FrameSourceHandler> handler) KAVO_REQUIRES(eventLoopRole)
      : Base(env), m_FrameSourceHandler(std::move(handler)), m_Trigger(env.taskScheduler(), deliverFrame0) {
    m_FrameSourceHandler->SetStreaming(true);
  }

  ~QueuedSource() override {
    eventLoopRole.assertHeld();
    m_FrameSourceHandler->SetStreaming(false);
    m_FrameSourceHandler->clear();
  }

  // A frame may have been queued while the sink was not waiting.
  void doGetNextFrame() override {
    eventLoopRole.assertHeld();
    deliverFrame();
  }

  // Copies the packet, of which the first deliverable bytes fit, to fTo and sets fFrameSize.
  virtual void copyFrame(AVPacket const& packet, unsigned deliverable) KAVO_REQUIRES(eventLoopRole) = 0;

 private:
  static void deliverFrame0(void* clientData) {
    eventLoopRole.assertHeld();
    if (clientData != nullptr) {
      static_cast<QueuedSource*>(clientData)->deliverFrame();
    }
  }

  // At most one frame, since the sink asks for each; empty ones are passed over.
  void deliverFrame() KAVO_REQUIRES(eventLoopRole) {
    while (this->isCurrentlyAwaitingData() && !m_FrameSourceHandler->empty()) {
      AVPacket const packet = m_FrameSourceHandler->front().packet;
      bool const hasData = packet.data != nullptr;
      if (hasData) {
        deliver(packet);
      }
      // Before the frame is handed on: who gets it may ask for the next one at once.
      m_FrameSourceHandler->pop();
      if (hasData) {
        FramedSource::afterGetting(this);
        return;
      }
    }
  }

  void deliver(AVPacket const& packet) KAVO_REQUIRES(eventLoopRole) {
    auto const size = static_cast<unsigned>(packet.size);
    unsigned const deliverable = std::min(size, this->fMaxSize);
    this->fNumTruncatedBytes = size - deliverable;
    gettimeofday(&this->fPresentationTime, nullptr);
    copyFrame(packet, deliverable);
  }

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  FrameTrigger m_Trigger;
};

}  // namespace kavo
