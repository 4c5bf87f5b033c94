// bench_server ENGINE PORT STREAMS FPS BYTES SECONDS VIEWERS
//
// Publishes JPEG images of about BYTES bytes for SECONDS and prints, as JSON, the CPU time
// and memory that it used. Before it begins to measure, it waits for a line on standard
// input, so that viewers can join first.
#include "server.h"

#include <sys/resource.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "codec/transcoder.h"

namespace {

std::vector<std::uint8_t> imageOf(kavo::impl::Transcoder& transcoder, int amplitude) {
  std::vector<std::uint8_t> frame(640 * 480 * 3 / 2 + 4096, 128);
  std::minstd_rand random(1);
  for (int i = 0; i < 640 * 480; ++i) {
    frame[static_cast<std::size_t>(i)] =
        static_cast<std::uint8_t>(128 + static_cast<int>(random() >> 8) % (amplitude + 1));
  }
  std::vector<std::uint8_t> image;
  for (int i = 0; i < 12; ++i) {  // until rate control settles
    AVPacket packet{};
    transcoder.transcode(frame.data(), packet);
    image.assign(packet.data, packet.data + packet.size);
    av_packet_unref(&packet);
  }
  return image;
}

// Noise of just the strength that gives the image the size.
std::vector<std::uint8_t> imageOf(int bytes) {
  kavo::impl::VideoCodecParameter parameter;
  parameter.m_SrcWidth = parameter.m_DstWidth = 640;
  parameter.m_SrcHeight = parameter.m_DstHeight = 480;
  parameter.m_DstCodecId = 8;
  parameter.m_Bitrate = bytes * 8 * 4;
  int weak = 0;
  int strong = 120;
  while (strong - weak > 1) {
    int const middle = (weak + strong) / 2;
    kavo::impl::Transcoder transcoder(&parameter);
    (static_cast<int>(imageOf(transcoder, middle).size()) < bytes ? weak : strong) = middle;
  }
  kavo::impl::Transcoder transcoder(&parameter);
  return imageOf(transcoder, strong);
}

// The last bytes of a frame hold the time at which it was pushed, as digits,
// which no JPEG parser takes for a marker.
void stamp(std::vector<std::uint8_t>& image) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  char text[32];
  int const length = std::snprintf(text, sizeof text, "KAVO%019lld", now.tv_sec * 1000000000LL + now.tv_nsec);
  std::memcpy(image.data() + image.size() - 64, text, static_cast<std::size_t>(length));
}

double threadCpuMilliseconds() {
  timespec used{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto const seconds = [](timeval const& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) {
      return std::atol(line.c_str() + 6);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 8) {
    std::fprintf(stderr, "usage: bench_server ours|stock|gst|floor PORT STREAMS FPS BYTES SECONDS VIEWERS\n");
    return 2;
  }
  std::string const engine = argv[1];
  BenchServer::Setup const setup{static_cast<std::uint16_t>(std::atoi(argv[2])), std::atoi(argv[3]),
                                 std::atoi(argv[7])};
  double const fps = std::atof(argv[4]);
  double const seconds = std::atof(argv[6]);
  auto image = imageOf(std::atoi(argv[5]));
  auto const server = engine == "ours"    ? makeOurServer(setup)
                      : engine == "stock" ? makeStockServer(setup)
                      : engine == "gst"   ? makeGstServer(setup)
                                          : makeFloorServer(setup);
  std::printf("{\"image\": %zu}\n", image.size());
  std::fflush(stdout);

  std::atomic<bool> counting = false;
  std::thread waiter([&] {
    std::getchar();
    counting = true;
  });
  using Clock = std::chrono::steady_clock;
  auto const interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / fps));
  auto due = Clock::now();
  Clock::time_point end{};
  double cpu = 0;
  int frames = 0;
  Clock::duration longestPush{};
  double mostPushCpu = 0;
  while (end == Clock::time_point{} || Clock::now() < end) {
    if (counting && end == Clock::time_point{}) {
      end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
      cpu = cpuSeconds();
      frames = 0;
      longestPush = {};
      mostPushCpu = 0;
    }
    stamp(image);
    double const used = threadCpuMilliseconds();
    auto const pushed = Clock::now();
    server->push(image);
    longestPush = std::max(longestPush, Clock::now() - pushed);
    mostPushCpu = std::max(mostPushCpu, threadCpuMilliseconds() - used);
    ++frames;
    due += interval;
    std::this_thread::sleep_until(due);
  }
  std::printf(
      "{\"cpu\": %.4f, \"frames\": %d, \"kilobytes\": %ld, \"image\": %zu, \"push\": %.3f, \"push_cpu\": %.3f}\n",
      cpuSeconds() - cpu, frames, residentKilobytes(), image.size(),
      std::chrono::duration<double, std::milli>(longestPush).count(), mostPushCpu);
  std::fflush(stdout);
  waiter.join();
  std::getchar();  // until the viewers have finished measuring
  std::_Exit(0);
}
