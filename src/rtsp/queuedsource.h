// What the sources of both payload formats share: they take frames out of a
// stream's queue when the sink asks for one or a host thread has queued one.
// Event-loop thread, but for signalNewFrameData().
#pragma once

#include <FramedSource.hh>
#include <algorithm>
#include <functional>
#include <memory>
#include <utility>

#include "eventloop/contained.h"
#include "eventloop/eventtrigger.h"
#include "rtsp/framebuffer.h"
#include "rtsp/framesourcehandler.h"
#include "rtsp/presentationclock.h"

namespace kavo::impl {

// A source that asks its sink for a buffer when it has a frame, and lets it grow with the
// frames instead of truncating them.
class GrowingSource {
 public:
  void setBuffers(std::function<FrameBuffer&()> next) { m_NextBuffer = std::move(next); }

 protected:
  ~GrowingSource() = default;
  std::function<FrameBuffer&()> m_NextBuffer;
};

// Base is the source class of live555 that the sink wants.
template <class Base>
class QueuedSource : public Base, public GrowingSource {
 public:
  // Any thread: wakes the event loop for a frame. Nothing happens for a null
  // pointer or a source of another type.
  static void signalNewFrameData(TaskScheduler* scheduler, FramedSource* source) {
    auto* queued = dynamic_cast<QueuedSource*>(source);
    if (scheduler != nullptr && queued != nullptr) {
      queued->m_Trigger.fire();
    }
  }

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

  // A frame may have been queued while the sink was not waiting. It is delivered
  // from the loop, to avoid nesting and to let sockets take their turn.
  void doGetNextFrame() override {
    eventLoopRole.assertHeld();
    if (!m_FrameSourceHandler->empty()) {
      m_Trigger.fire();
    }
  }

  // Copies the packet, of which the first deliverable bytes fit, to fTo and sets fFrameSize.
  virtual void copyFrame(AVPacket const& packet, unsigned deliverable) KAVO_REQUIRES(eventLoopRole) = 0;

 private:
  // At most one frame, since the sink asks for each; empty ones are skipped.
  void deliverFrame() KAVO_REQUIRES(eventLoopRole) {
    while (this->isCurrentlyAwaitingData() && !m_FrameSourceHandler->empty()) {
      AVPacket const packet = m_FrameSourceHandler->front().packet;
      bool const delivered =
          packet.data != nullptr && contained([&]() KAVO_REQUIRES(eventLoopRole) { deliver(packet); });
      m_FrameSourceHandler->pop();
      if (delivered) {
        noteNewest(packet);
        FramedSource::afterGetting(this);
        return;
      }
    }
  }

  void noteNewest(AVPacket const& packet) {
    if (auto const& status = m_FrameSourceHandler->status()) {
      auto const age = std::chrono::steady_clock::now() - FrameSourceHandler::submitTime(packet);
      auto const microseconds = std::chrono::duration_cast<std::chrono::microseconds>(age).count();
      status::put(status->newest, status::now() - static_cast<std::uint64_t>(microseconds));
    }
  }

  void deliver(AVPacket const& packet) KAVO_REQUIRES(eventLoopRole) {
    auto const size = static_cast<unsigned>(packet.size);
    if (m_NextBuffer) {
      FrameBuffer& buffer = m_NextBuffer();
      buffer.reserve(size);
      this->fTo = buffer.data();
      this->fMaxSize = static_cast<unsigned>(buffer.size());
    }
    unsigned const deliverable = std::min(size, this->fMaxSize);
    this->fNumTruncatedBytes = size - deliverable;
    this->fPresentationTime = presentationTime(FrameSourceHandler::submitTime(packet));
    copyFrame(packet, deliverable);
  }

  std::shared_ptr<FrameSourceHandler> m_FrameSourceHandler;
  EventTrigger m_Trigger;
};

}  // namespace kavo::impl
