#include "eventloop/loopcalls.h"

#include <utility>

#include "eventloop/contained.h"

namespace kavo::impl {

namespace {

// Marks the list as closed, in place of its head.
class Closed final : public LoopCall {
  void run(bool /*onLoop*/) override {}
};
constinit Closed g_Closed;

}  // namespace

bool LoopCalls::request(LoopCall& call) {
  if (call.m_IsPending.exchange(true)) {
    return false;
  }
  LoopCall* newest = m_Requested.load();
  do {
    if (newest == &g_Closed) {
      call.m_IsPending = false;
      call.run(false);
      return false;
    }
    call.m_Next = newest;
  } while (!m_Requested.compare_exchange_weak(newest, &call));
  return newest == nullptr;
}

void LoopCalls::takeRequested() {
  LoopCall* newest = m_Requested.exchange(m_Empty);
  LoopCall* oldest = nullptr;
  while (newest != nullptr && newest != &g_Closed) {
    oldest = std::exchange(newest, std::exchange(newest->m_Next, oldest));
  }
  LoopCall** end = &m_Taken;
  while (*end != nullptr) {
    end = &(*end)->m_Next;
  }
  *end = oldest;
}

// Calls requested by these run in the loop's next pass.
void LoopCalls::runTaken(bool onLoop) {
  while (m_Taken != nullptr) {
    LoopCall& call = *std::exchange(m_Taken, m_Taken->m_Next);
    call.m_Next = nullptr;
    call.m_IsPending.exchange(false);  // synchronizes with all requests made so far
    contained([&] { call.run(onLoop); });
  }
}

void LoopCalls::runAll() {
  takeRequested();
  runTaken(true);
}

void LoopCalls::withdraw(LoopCall& call) {
  if (!call.m_IsPending) {
    return;
  }
  takeRequested();
  for (LoopCall** place = &m_Taken; *place != nullptr; place = &(*place)->m_Next) {
    if (*place == &call) {
      *place = call.m_Next;
      call.m_IsPending = false;
      return;
    }
  }
}

void LoopCalls::close() {
  m_Empty = &g_Closed;
  takeRequested();
  runTaken(false);
}

}  // namespace kavo::impl
