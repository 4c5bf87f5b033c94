// Many cameras in one process: each has a session, and one thread submits all frames.
//
//   c++ -std=c++17 many_cameras.cpp -o many_cameras -lkavo_stream
//   ./many_cameras [CAMERAS] [PORT] [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <kavo/stream.hpp>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Camera {
  kavo::Session session;
  kavo::Stream stream;
};

Camera openCamera(kavo::Server& server, int number) {
  kavo::Session session = server.createSession("camera" + std::to_string(number));
  kavo::VideoOptions video;
  video.width = 320;
  video.height = 240;
  video.format = kavo::PixelFormat::Yuv420p;
  video.codec = kavo::Codec::Jpeg;
  video.frameRate = 10;
  kavo::Stream stream = session.createStream(video);
  std::printf("%s\n", session.url().c_str());
  return {std::move(session), stream};
}

}  // namespace

int main(int argc, char** argv) try {
  int const count = argc > 1 ? std::atoi(argv[1]) : 8;
  kavo::Server server(static_cast<std::uint16_t>(argc > 2 ? std::atoi(argv[2]) : 8554));
  std::vector<Camera> cameras;
  cameras.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    cameras.push_back(openCamera(server, i));
  }
  std::fflush(stdout);
  int const frames = argc > 3 ? std::atoi(argv[3]) * 10 : -1;
  std::vector<std::uint8_t> frame(kavo::frameSize(kavo::PixelFormat::Yuv420p, 320, 240), 128);
  for (int number = 0; number != frames; ++number) {
    for (std::size_t i = 0; i < cameras.size(); ++i) {
      std::fill_n(frame.begin(), 320 * 240, static_cast<std::uint8_t>(number * 4 + static_cast<int>(i) * 20));
      cameras[i].stream.submit(frame.data(), frame.size());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
} catch (std::exception const& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
