// Publishes a V4L2 camera: JPEG images are submitted without a copy from the driver's buffers;
// raw frames are converted to JPEG's range.
//
//   c++ -std=c++17 v4l2.cpp -o v4l2 -lkavo_stream -lswscale -lavutil
//   ./v4l2 [/dev/video0] [PORT] [SECONDS]
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <kavo/convert.hpp>
#include <kavo/stream.hpp>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Layout {
  std::uint32_t v4l2;
  AVPixelFormat ffmpeg;  // the converter's name for it

  bool isJpeg() const { return ffmpeg == AV_PIX_FMT_NONE; }
};

// In order of preference.
constexpr Layout layouts[] = {
    {V4L2_PIX_FMT_MJPEG, AV_PIX_FMT_NONE},   {V4L2_PIX_FMT_YUV420, AV_PIX_FMT_YUV420P},
    {V4L2_PIX_FMT_RGB24, AV_PIX_FMT_RGB24},  {V4L2_PIX_FMT_BGR24, AV_PIX_FMT_BGR24},
    {V4L2_PIX_FMT_YUYV, AV_PIX_FMT_YUYV422}, {V4L2_PIX_FMT_NV12, AV_PIX_FMT_NV12},
    {V4L2_PIX_FMT_GREY, AV_PIX_FMT_GRAY8},
};

class Camera {
 public:
  explicit Camera(std::string const& device) : m_Device(open(device.c_str(), O_RDWR | O_CLOEXEC)) {
    if (m_Device < 0) {
      throw std::runtime_error(device + ": " + std::strerror(errno));
    }
    chooseLayout();
    mapBuffers();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    control(VIDIOC_STREAMON, &type, "starting the camera");
  }
  ~Camera() {
    for (auto const& buffer : m_Buffers) {
      munmap(buffer.start, buffer.length);
    }
    close(m_Device);
  }
  Camera(Camera const&) = delete;
  Camera& operator=(Camera const&) = delete;

  Layout const& layout() const { return *m_Layout; }
  int width() const { return static_cast<int>(m_Format.fmt.pix.width); }
  int height() const { return static_cast<int>(m_Format.fmt.pix.height); }
  int stride() const { return static_cast<int>(m_Format.fmt.pix.bytesperline); }

  // Calls the function with the next frame, in the driver's memory, and its bytes.
  template <class Function>
  void withFrame(Function const& function) {
    v4l2_buffer buffer = bufferRequest();
    control(VIDIOC_DQBUF, &buffer, "waiting for a frame");
    auto const& mapped = m_Buffers[buffer.index];
    function(static_cast<std::uint8_t const*>(mapped.start), layout().isJpeg() ? buffer.bytesused : mapped.length);
    control(VIDIOC_QBUF, &buffer, "giving a buffer back");
  }

 private:
  struct Mapped {
    void* start;
    std::size_t length;
  };

  void control(unsigned long request, void* argument, char const* what) const {
    while (ioctl(m_Device, request, argument) < 0) {
      if (errno != EINTR) {
        throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
      }
    }
  }

  static v4l2_buffer bufferRequest() {
    v4l2_buffer buffer{};
    buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buffer.memory = V4L2_MEMORY_MMAP;
    return buffer;
  }

  void chooseLayout() {
    for (Layout const& layout : layouts) {
      m_Format = {};
      m_Format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
      m_Format.fmt.pix.width = 640;
      m_Format.fmt.pix.height = 480;
      m_Format.fmt.pix.pixelformat = layout.v4l2;
      if (ioctl(m_Device, VIDIOC_S_FMT, &m_Format) == 0 && m_Format.fmt.pix.pixelformat == layout.v4l2) {
        m_Layout = &layout;
        return;
      }
    }
    throw std::runtime_error("the camera gives none of MJPEG, YUV420, RGB24, BGR24, YUYV, NV12 and GREY");
  }

  void mapBuffers() {
    v4l2_requestbuffers request{};
    request.count = 4;
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    control(VIDIOC_REQBUFS, &request, "asking for buffers");
    for (std::uint32_t i = 0; i < request.count; ++i) {
      v4l2_buffer buffer = bufferRequest();
      buffer.index = i;
      control(VIDIOC_QUERYBUF, &buffer, "asking for a buffer");
      void* const start = mmap(nullptr, buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, m_Device,
                               static_cast<off_t>(buffer.m.offset));
      if (start == MAP_FAILED) {
        throw std::runtime_error("a buffer cannot be mapped");
      }
      m_Buffers.push_back({start, buffer.length});
      control(VIDIOC_QBUF, &buffer, "queueing a buffer");
    }
  }

  int m_Device;
  v4l2_format m_Format{};
  Layout const* m_Layout = nullptr;
  std::vector<Mapped> m_Buffers;
};

using Submit = std::function<void(std::uint8_t const* frame, std::size_t size)>;

// How the camera's frames become a stream of the session.
Submit publisherOf(kavo::Session& session, Camera const& camera) {
  if (camera.layout().isJpeg()) {
    kavo::EncodedOptions options;
    options.codec = kavo::Codec::Jpeg;
    return [stream = session.createEncodedStream(options)](std::uint8_t const* image, std::size_t size) mutable {
      stream.submit(image, size);
    };
  }
  auto const converter = std::make_shared<kavo::Converter>(camera.layout().ffmpeg, camera.width(), camera.height(),
                                                           camera.stride(), kavo::Range::Full);
  kavo::VideoOptions video;
  video.width = camera.width();
  video.height = camera.height();
  video.format = kavo::Converter::format();
  video.codec = kavo::Codec::Jpeg;
  return [stream = session.createStream(video), converter](std::uint8_t const* frame, std::size_t size) mutable {
    if (size >= converter->sourceSize()) {
      auto const& converted = converter->convert(frame);
      stream.submit(converted.data(), converted.size());
    }
  };
}

}  // namespace

int main(int argc, char** argv) try {
  Camera camera(argc > 1 ? argv[1] : "/dev/video0");
  kavo::Server server(static_cast<std::uint16_t>(argc > 2 ? std::atoi(argv[2]) : 8554));
  kavo::Session session = server.createSession("camera");
  Submit const submit = publisherOf(session, camera);
  std::printf("%s\n", session.url().c_str());
  std::fflush(stdout);

  using Clock = std::chrono::steady_clock;
  auto const end = Clock::now() + std::chrono::seconds(argc > 3 ? std::atoi(argv[3]) : 1000000);
  while (Clock::now() < end) {
    camera.withFrame(submit);
  }
} catch (std::exception const& failure) {
  std::fprintf(stderr, "%s\n", failure.what());
  return 1;
}
