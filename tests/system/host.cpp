#include "system/host.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "system/rtspclient.h"

namespace {

// With quarters in different colours.
std::vector<std::uint8_t> testFrame(int width, int height) {
  std::vector<std::uint8_t> frame;
  for (int pixel = 0; pixel < width * height; ++pixel) {
    bool const right = pixel % width * 2 >= width;
    bool const lower = pixel / width * 2 >= height;
    frame.insert(frame.end(), {std::uint8_t(lower ? 255 : 0), std::uint8_t(right ? 200 : 0),
                               std::uint8_t(lower == right ? 200 : 0)});
  }
  return frame;
}

}  // namespace

Host::Host(std::uint32_t port) : m_Library(dlopen(KAVO_LIBRARY, RTLD_NOW | RTLD_LOCAL)), m_Port(port) {
  if (m_Library == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    std::abort();
  }
  m_Function = reinterpret_cast<int (*)(int, void*, int)>(dlsym(m_Library, "_Z9kv_StreamiPvi"));
}

Host::~Host() {
  stopSubmitting();
  dlclose(m_Library);
}

void Host::serve() {
  EXPECT_NE(onFreePort([this](std::uint32_t port) { return serveOn(port) == KV_OK; }), 0U);
}

int Host::serveOn(std::uint32_t port) {
  m_Port = port;
  return call(KV_INIT, port);
}

int Host::exit() {
  stopSubmitting();
  m_Streams.clear();
  return call(KV_EXIT, nullptr, 0);
}

Host::Stream& Host::publish(std::string const& name, int codec, int width, int height, int bitrate) {
  auto session = sessionRecord(name);
  auto video = videoRecord(KV_BGR24, codec, width, height);
  video.bitrate = bitrate;
  auto result = std::make_unique<Stream>();
  result->frame = testFrame(width, height);
  result->frameSize = result->frame.size();
  result->height = height;
  result->record =
      createStream(session, video, [&](int command, auto& record) { EXPECT_EQ(call(command, record), KV_OK) << name; });
  m_Streams.push_back(std::move(result));
  return *m_Streams.back();
}

void Host::startSubmitting() {
  constexpr int scrolledRows = 149;  // farther than encoders search for motion
  m_Submitting = true;
  m_Submitter = std::thread([this] {
    while (m_Submitting) {
      for (auto const& stream : m_Streams) {
        auto const row = stream->frameSize / static_cast<std::size_t>(stream->height);
        auto const rows = (stream->frame.size() - stream->frameSize) / row + 1;
        stream->record.frame = stream->frame.data() + static_cast<std::size_t>(m_Submitted * scrolledRows) % rows * row;
        if (call(KV_SUBMIT_FRAME, stream->record) != KV_OK) {
          ++m_FailedSubmits;
        }
      }
      ++m_Submitted;
      std::this_thread::sleep_for(std::chrono::milliseconds(30));  // the frame rate
    }
  });
}

void Host::serveLive(std::string const& name, int codec) {
  serve();
  publish(name, codec);
  startSubmitting();
}

void Host::stopSubmitting() {
  m_Submitting = false;
  if (m_Submitter.joinable()) {
    m_Submitter.join();
  }
}

std::string Host::url(std::string const& name, std::string const& address) const {
  return "rtsp://" + address + ":" + std::to_string(m_Port) + "/" + name;
}
