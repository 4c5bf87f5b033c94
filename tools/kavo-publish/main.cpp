// kavo-publish: publishes a video file, a camera, a URL or a test picture.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "input.h"
#include "options.h"
#include "publisher.h"

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

std::atomic<bool> g_Stop = false;

void onSignal(int) { g_Stop = true; }

// The nearest size that the codec takes, and that RTP/JPEG can express, with the input's shape.
Size publishableSize(Size size) {
  constexpr int largest = 2040;
  constexpr int step = 8;
  double const scale = std::min({1.0, double(largest) / size.width, double(largest) / size.height});
  auto const fit = [&](int length) { return std::max(step, static_cast<int>(length * scale) / step * step); };
  return {fit(size.width), fit(size.height)};
}

void checkSize(Size size) {
  Size const nearest = publishableSize(size);
  if (nearest.width != size.width || nearest.height != size.height) {
    throw Failure("JPEG takes sizes up to 2040x2040 in steps of 8: the nearest to --size " +
                  std::to_string(size.width) + "x" + std::to_string(size.height) + " is " +
                  std::to_string(nearest.width) + "x" + std::to_string(nearest.height));
  }
}

kv_video_record videoOf(Options const& options, Input const& input) {
  if (options.size) {
    checkSize(*options.size);
  }
  Size const size = options.size.value_or(publishableSize(input.size()));
  kv_video_record video{};
  video.src_width = input.size().width;
  video.src_height = input.size().height;
  video.dst_width = size.width;
  video.dst_height = size.height;
  video.src_pixel_format = input.pixelFormat();
  video.dst_codec = options.codec;
  video.frame_rate = input.frameRate();
  // The library takes JPEG's bitrate as bits per picture.
  double const bitsPerPicture = options.bitsPerSecond ? double(*options.bitsPerSecond) / video.frame_rate
                                                      : 1.2 * video.dst_width * video.dst_height;
  video.bitrate = std::max(1, static_cast<std::int32_t>(bitsPerPicture));
  return video;
}

void printIntroduction(Options const& options, kv_video_record const& video, std::string const& url) {
  std::printf("Publishing %s, %dx%d at %d frames a second, as JPEG:\n\n  %s\n\nWatch it with one of\n",
              options.input.empty() ? "the test picture" : options.input.c_str(), video.dst_width, video.dst_height,
              video.frame_rate, url.c_str());
  std::printf("  ffplay -rtsp_transport tcp %s\n  vlc %s\n", url.c_str(), url.c_str());
  std::printf("  gst-launch-1.0 rtspsrc location=%s latency=100 ! rtpjpegdepay ! jpegdec ! autovideosink\n\n",
              url.c_str());
  std::printf("Ctrl-C ends.\n");
  std::fflush(stdout);
}

// One line that renews itself on a terminal, and one now and then elsewhere.
class Status {
 public:
  void add(Seconds submitTime) {
    ++m_Frames;
    m_Recent.push_back(submitTime.count());
    auto const now = Clock::now();
    if (now - m_Printed >= (m_Terminal ? std::chrono::seconds(1) : std::chrono::seconds(5))) {
      m_Printed = now;
      print();
    }
  }

  void end() {
    if (m_Terminal) {
      std::printf("\n");
    }
    std::printf("%ld frames submitted\n", m_Frames);
  }

 private:
  void print() {
    auto const middle = m_Recent.begin() + static_cast<std::ptrdiff_t>(m_Recent.size() / 2);
    std::nth_element(m_Recent.begin(), middle, m_Recent.end());
    // A frame that nobody waits for is not encoded, and its call ends within microseconds.
    bool const watched = *std::min_element(m_Recent.begin(), m_Recent.end()) > 30e-6;
    std::printf("%s%ld frames submitted, %.3f ms a frame, %s%s", m_Terminal ? "\r" : "", m_Frames, *middle * 1e3,
                watched ? "watched" : "nobody watches", m_Terminal ? "   " : "\n");
    std::fflush(stdout);
    m_Recent.clear();
  }

  bool m_Terminal = isatty(STDOUT_FILENO) != 0;
  long m_Frames = 0;
  std::vector<double> m_Recent;
  Clock::time_point m_Printed = Clock::now();
};

void waitUntil(Clock::time_point due) {
  while (!g_Stop && Clock::now() < due) {
    std::this_thread::sleep_until(std::min(due, Clock::now() + std::chrono::milliseconds(100)));
  }
}

void publish(Options const& options) {
  Input input(options, g_Stop);
  kv_video_record const video = videoOf(options, input);
  Publisher publisher(options, video);
  printIntroduction(options, video, publisher.url());

  Status status;
  auto const begin = Clock::now();
  auto start = begin;
  while (!g_Stop && (!options.seconds || Seconds(Clock::now() - begin).count() < *options.seconds)) {
    auto const frame = input.next();
    if (!frame) {
      break;
    }
    auto const due = start + std::chrono::duration_cast<Clock::duration>(Seconds(input.time()));
    waitUntil(due);
    // An input that fell behind is not hurried to catch up.
    if (Clock::now() - due > std::chrono::milliseconds(500)) {
      start += Clock::now() - due;
    }
    auto const before = Clock::now();
    publisher.submit((*frame)->data());
    status.add(Clock::now() - before);
  }
  status.end();
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  try {
    if (auto const options = readOptions(argc, argv)) {
      publish(*options);
    }
    return EXIT_SUCCESS;
  } catch (Failure const& failure) {
    std::fprintf(stderr, "kavo-publish: %s\n", failure.what());
    return failure.exitCode;
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "kavo-publish: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
