// Compares a submit through kv_Stream, with a viewer, with the floor: libswscale and the encoder called
// directly, with the same settings and frames, in turns.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/uniquefd.h"
#include "floor.h"
#include "kavo_stream.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Shape {
  int width, height, codec;
};

std::vector<std::vector<std::uint8_t>> framesOf(Shape const& shape) {
  std::vector<std::vector<std::uint8_t>> result;
  for (int n = 0; n < 8; ++n) {
    std::vector<std::uint8_t> frame(static_cast<std::size_t>(shape.width * shape.height * 3) + 4096);
    for (std::size_t i = 0; i < frame.size(); ++i) {
      frame[i] = static_cast<std::uint8_t>((i / 7) + i / 4096 + static_cast<std::size_t>(n) * 3);
    }
    result.push_back(std::move(frame));
  }
  return result;
}

// A viewer over UDP that reads nothing; the kernel drops its packets.
class Viewer {
 public:
  Viewer(std::uint32_t port, std::string const& url) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(m_Udp.get(), reinterpret_cast<sockaddr const*>(&address), size);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    connect(m_Rtsp.get(), reinterpret_cast<sockaddr const*>(&address), size);
    getsockname(m_Udp.get(), reinterpret_cast<sockaddr*>(&address), &size);
    auto const own = std::to_string(ntohs(address.sin_port));
    auto const setup = ask("SETUP " + url + "/track1", "Transport: RTP/AVP;unicast;client_port=" + own + "-" + own);
    auto const session = setup.find("Session: ");
    ask("PLAY " + url, setup.substr(session, setup.find_first_of(";\r", session) - session));
  }

 private:
  std::string ask(std::string const& what, std::string const& header) const {
    auto const request = what + " RTSP/1.0\r\nCSeq: 1\r\n" + header + "\r\n\r\n";
    (void)send(m_Rtsp.get(), request.data(), request.size(), MSG_NOSIGNAL);
    std::string response(2000, '\0');  // which one segment holds
    response.resize(static_cast<std::size_t>(std::max<ssize_t>(recv(m_Rtsp.get(), response.data(), 2000, 0), 0)));
    if (!response.starts_with("RTSP/1.0 200 OK")) {
      throw std::runtime_error("the viewer cannot play: " + response);
    }
    return response;
  }

  kavo::impl::UniqueFd m_Rtsp{socket(AF_INET, SOCK_STREAM, 0)};
  kavo::impl::UniqueFd m_Udp{socket(AF_INET, SOCK_DGRAM, 0)};
};

// A host with streams "0", "1", ..., each with a viewer.
class Host {
 public:
  explicit Host(Shape const& shape, int streams = 1, bool watched = true) {
    while (kv_Stream(KV_INIT, &m_Port, sizeof m_Port) != KV_OK) {
      ++m_Port;
    }
    for (int i = 0; i < streams; ++i) {
      std::string const name = std::to_string(i);
      publish(shape, name);
      if (watched) {
        m_Viewers.emplace_back(m_Port, "rtsp://127.0.0.1/" + name);
      }
    }
  }
  ~Host() { kv_Stream(KV_EXIT, nullptr, 0); }
  Host(Host const&) = delete;
  Host& operator=(Host const&) = delete;

  void submit(std::uint8_t const* pixels, std::size_t stream = 0) {
    m_Frames[stream].frame = pixels;
    benchmark::DoNotOptimize(kv_Stream(KV_SUBMIT_FRAME, &m_Frames[stream], sizeof m_Frames[stream]));
  }

 private:
  void publish(Shape const& shape, std::string const& name) {
    kv_session_record session{};
    std::snprintf(session.name, sizeof session.name, "%s", name.c_str());
    std::strcpy(session.info, "a");
    std::strcpy(session.description, "a");
    kv_Stream(KV_CREATE_SESSION, &session, sizeof session);
    kv_video_record video{};
    video.src_width = video.dst_width = shape.width;
    video.src_height = video.dst_height = shape.height;
    video.src_pixel_format = KV_RGB24;
    video.dst_codec = shape.codec;
    video.frame_rate = 25;
    video.bitrate = 2000000;
    kv_stream_record stream{nullptr, session.handle, nullptr, KV_MEDIA_VIDEO, 0, &video};
    kv_Stream(KV_CREATE_STREAM, &stream, sizeof stream);
    m_Frames.push_back({nullptr, session.handle, stream.stream, nullptr, nullptr});
  }

  std::uint32_t m_Port = 39871;
  std::vector<kv_frame_record> m_Frames;
  std::vector<Viewer> m_Viewers;
};

template <class Function>
double seconds(Function const& function) {
  auto const begin = Clock::now();
  function();
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

// Measures one pair a round, alternating which is first. Returns the median of the ratios.
void submitOverFloor(benchmark::State& state, Shape const& shape) {
  auto const frames = framesOf(shape);
  Floor floor({.isJpeg = shape.codec == KV_CODEC_MJPEG,
               .width = shape.width,
               .height = shape.height,
               .outputWidth = shape.width,
               .outputHeight = shape.height});
  Host host(shape);
  std::vector<double> ratios;
  double milliseconds = 0;
  int round = 0;
  for (auto _ : state) {
    auto const* pixels = frames[static_cast<std::size_t>(round) % frames.size()].data();
    double bare = 0;
    double ours = 0;
    if (round++ % 2 == 0) {
      bare = seconds([&] { benchmark::DoNotOptimize(floor.encode(pixels).data()); });
      ours = seconds([&] { host.submit(pixels); });
    } else {
      ours = seconds([&] { host.submit(pixels); });
      bare = seconds([&] { benchmark::DoNotOptimize(floor.encode(pixels).data()); });
    }
    ratios.push_back(ours / bare);
    milliseconds += ours * 1e3;
  }
  std::sort(ratios.begin(), ratios.end());
  state.counters["ratio"] = ratios[ratios.size() / 2];
  state.counters["ratio_q1"] = ratios[ratios.size() / 4];
  state.counters["ratio_q3"] = ratios[ratios.size() * 3 / 4];
  state.counters["ms"] = milliseconds / round;
}

BENCHMARK_CAPTURE(submitOverFloor, jpeg_720p, Shape{1280, 720, 8})->Iterations(150)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(submitOverFloor, jpeg_1080p, Shape{1920, 1080, 8})->Iterations(100)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(submitOverFloor, h264_720p, Shape{1280, 720, 28})->Iterations(150)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(submitOverFloor, h264_1080p, Shape{1920, 1080, 28})->Iterations(100)->Unit(benchmark::kMillisecond);

// Compares streams that encode in parallel, on a thread each, with a single one: how many times its frames
// they encode.
void parallelStreams(benchmark::State& state, Shape const& shape, int streams) {
  char policy[] = "/tmp/kavo-bench-XXXXXX";
  close(mkstemp(policy));
  std::ofstream(policy) << "[encoding]\nparallel = true\n";
  setenv("KAVO_STREAM_CONFIG", policy, 1);
  auto const frames = framesOf(shape);
  Host host(shape, streams);
  unsetenv("KAVO_STREAM_CONFIG");
  unlink(policy);
  auto const submitAll = [&](std::size_t stream) {
    for (int i = 0; i < 40; ++i) {
      host.submit(frames[static_cast<std::size_t>(i) % frames.size()].data(), stream);
    }
  };
  std::vector<double> ratios;
  for (auto _ : state) {
    double const alone = seconds([&] { submitAll(0); });
    double const together = seconds([&] {
      std::vector<std::thread> threads;
      for (int i = 0; i < streams; ++i) {
        threads.emplace_back(submitAll, static_cast<std::size_t>(i));
      }
      for (auto& thread : threads) {
        thread.join();
      }
    });
    ratios.push_back(streams * alone / together);
  }
  std::sort(ratios.begin(), ratios.end());
  state.counters["times"] = ratios[ratios.size() / 2];
}

BENCHMARK_CAPTURE(parallelStreams, h264_1080p_2, Shape{1920, 1080, 28}, 2)
    ->Iterations(7)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parallelStreams, jpeg_1080p_4, Shape{1920, 1080, 8}, 4)->Iterations(7)->Unit(benchmark::kMillisecond);

// Submits a frame of a stream without viewers through kv_Stream.
void submitWithoutViewer(benchmark::State& state) {
  Host host({640, 480, KV_CODEC_MJPEG}, 1, false);
  std::vector<std::uint8_t> const pixels(640 * 480 * 3);
  for (auto _ : state) {
    host.submit(pixels.data());
  }
}
BENCHMARK(submitWithoutViewer);

}  // namespace

BENCHMARK_MAIN();
