// A host program: a moving test pattern, published for SECONDS, or until it is killed.
//
//   c++ -std=c++17 host.cpp -o host -lkavo_stream
//   ./host [PORT] [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <kavo/stream.hpp>
#include <thread>
#include <vector>

namespace {

constexpr int width = 640;
constexpr int height = 480;

// A grey ramp that moves to the left, with a white bar that shows the time. The first plane is
// brightness, 0 to 255 as JPEG shows it; the other two are colour and stay neutral.
void draw(std::vector<std::uint8_t>& planes, int frame) {
  std::uint8_t* pixel = planes.data();
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x, ++pixel) {
      bool const bar = y > height - 40 && x < frame * 4 % width;
      *pixel = bar ? 255 : static_cast<std::uint8_t>(x + frame * 3);
    }
  }
}

}  // namespace

int main(int argc, char** argv) try {
  kavo::Server server(static_cast<std::uint16_t>(argc > 1 ? std::atoi(argv[1]) : 8554));
  kavo::Session session = server.createSession("host");
  kavo::VideoOptions video;
  video.width = width;
  video.height = height;
  video.format = kavo::PixelFormat::Yuv420p;
  video.codec = kavo::Codec::Jpeg;
  kavo::Stream stream = session.createStream(video);
  std::printf("%s\n", session.url().c_str());
  std::fflush(stdout);

  std::vector<std::uint8_t> planes(stream.frameSize(), 128);
  int const frames = argc > 2 ? std::atoi(argv[2]) * video.frameRate : -1;
  for (int frame = 0; frame != frames; ++frame) {
    draw(planes, frame);
    stream.submit(planes.data(), planes.size());
    std::this_thread::sleep_for(std::chrono::milliseconds(1000 / video.frameRate));
  }
} catch (std::exception const& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
