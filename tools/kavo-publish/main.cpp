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

struct Codec {
  std::int32_t id;
  char const* name;
  Size largest;
  int step;               // sizes are multiples of it
  double bitsPerPixel;    // of each picture, without --bitrate
  char const* gstreamer;  // the elements that decode it
};

// JPEG in the steps of 8 that RTP can express.
constexpr Codec codecs[] = {
    {KV_CODEC_H264, "H.264", {4096, 2304}, 2, 0.1, "rtph264depay ! h264parse ! avdec_h264"},
    {KV_CODEC_MJPEG, "JPEG", {2040, 2040}, 8, 1.2, "rtpjpegdepay ! jpegdec"},
};

// The nearest size that the codec takes, in the same shape.
Size nearestSize(Codec const& codec, Size size) {
  double const scale =
      std::min({1.0, double(codec.largest.width) / size.width, double(codec.largest.height) / size.height});
  auto const fit = [&](int length) { return std::max(16, static_cast<int>(length * scale) / codec.step * codec.step); };
  return {fit(size.width), fit(size.height)};
}

std::string textOf(Size size) { return std::to_string(size.width) + "x" + std::to_string(size.height); }

Size publishedSize(Codec const& codec, Options const& options, Input const& input) {
  Size const wanted = options.size.value_or(input.size());
  Size const nearest = nearestSize(codec, wanted);
  if (options.size && textOf(nearest) != textOf(wanted)) {
    throw Failure(std::string(codec.name) + " takes sizes from 16x16 to " + textOf(codec.largest) + " in steps of " +
                  std::to_string(codec.step) + ": the nearest to --size " + textOf(wanted) + " is " + textOf(nearest));
  }
  return nearest;
}

kv_video_record videoOf(Codec const& codec, Options const& options, Input const& input) {
  Size const size = publishedSize(codec, options, input);
  kv_video_record video{};
  video.src_width = input.size().width;
  video.src_height = input.size().height;
  video.dst_width = size.width;
  video.dst_height = size.height;
  video.src_pixel_format = input.pixelFormat();
  video.dst_codec = codec.id;
  video.frame_rate = input.frameRate();
  double const rate = video.frame_rate;
  double const bitsPerSecond =
      options.bitsPerSecond ? double(*options.bitsPerSecond) : codec.bitsPerPixel * size.width * size.height * rate;
  // The library takes JPEG's bitrate as bits per picture.
  double const bitrate = codec.id == KV_CODEC_MJPEG ? bitsPerSecond / rate : bitsPerSecond;
  video.bitrate = static_cast<std::int32_t>(std::clamp(bitrate, 1.0, 2e9));
  return video;
}

struct Published {
  Codec const* codec;
  kv_video_record video;
};

// The codec asked for, or the first of the table that works here.
Published createStream(Publisher& publisher, Options const& options, Input const& input) {
  for (Codec const& codec : codecs) {
    if (options.codec && *options.codec != codec.id) {
      continue;
    }
    kv_video_record const video = videoOf(codec, options, input);
    int const result = publisher.createStream(video);
    if (result == KV_OK) {
      return {&codec, video};
    }
    if (options.codec || codec.id != KV_CODEC_H264 || result != KV_CODEC_FAILURE) {
      throw Failure("cannot encode " + std::string(codec.name) + " (result " + std::to_string(result) + "): " +
                    (codec.id == KV_CODEC_H264 ? "install OpenH264 (on Debian: libopenh264-dev), or use --codec jpeg"
                                               : "choose another --size or --bitrate"));
    }
    std::printf("OpenH264 is not installed (on Debian: libopenh264-dev), so this is JPEG\n");
  }
  throw Failure("no codec to publish with");
}

void printIntroduction(Options const& options, Published const& published, std::string const& url) {
  auto const& video = published.video;
  std::printf("Publishing %s, %dx%d at %d frames a second, as %s:\n\n  %s\n\nWatch it with one of\n",
              options.input.empty() ? "the test picture" : options.input.c_str(), video.dst_width, video.dst_height,
              video.frame_rate, published.codec->name, url.c_str());
  std::printf("  ffplay -rtsp_transport tcp %s\n  vlc %s\n", url.c_str(), url.c_str());
  std::printf("  gst-launch-1.0 rtspsrc location=%s latency=100 ! %s ! autovideosink\n\n", url.c_str(),
              published.codec->gstreamer);
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
  Publisher publisher(options);
  printIntroduction(options, createStream(publisher, options, input), publisher.url());

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
