#include "rtsp/framesourcehandler.h"

#include <gtest/gtest.h>

#include <stdexcept>

extern "C" {
#include <libavutil/buffer.h>
}

using namespace kavo::impl;

namespace {

int g_Released = 0;

void countRelease(void*, std::uint8_t* data) {
  ++g_Released;
  delete[] data;
}

FrameSourceHandler::FrameData frame(int size) {
  FrameSourceHandler::FrameData data{};
  data.packet.buf = av_buffer_create(new std::uint8_t[8], 8, countRelease, nullptr, 0);
  data.packet.data = data.packet.buf->data;
  data.packet.size = size;
  return data;
}

}  // namespace

TEST(FrameQueue, ReleasesEveryFrameOnce) {
  g_Released = 0;
  {
    FrameSourceHandler queue;
    queue.push(frame(1));
    queue.pop();
    EXPECT_EQ(g_Released, 1);
    queue.push(frame(2));
    queue.push(frame(3));
    queue.clear();
    EXPECT_EQ(g_Released, 3);
    queue.clear();
    queue.push(frame(4));
  }
  EXPECT_EQ(g_Released, 4);
}

TEST(FrameQueue, LeavesForeignBytesAlone) {
  FrameSourceHandler queue;
  queue.push({});  // an empty frame
  std::uint8_t bytes[4] = {};
  FrameSourceHandler::FrameData borrowed{};
  borrowed.packet.data = bytes;
  borrowed.packet.size = 4;
  queue.push(borrowed);
  queue.pop();
  queue.pop();
  EXPECT_TRUE(queue.empty());
}
