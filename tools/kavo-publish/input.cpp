#include "input.h"

#include <cmath>
#include <utility>

#include "cameras.h"

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavutil/imgutils.h>
}

namespace {

// The layouts that the library takes as they are.
constexpr std::pair<AVPixelFormat, kavo::PixelFormat> hostFormats[] = {
    {AV_PIX_FMT_YUV420P, kavo::PixelFormat::Yuv420p}, {AV_PIX_FMT_YUVJ420P, kavo::PixelFormat::Yuvj420p},
    {AV_PIX_FMT_YUV422P, kavo::PixelFormat::Yuv422p}, {AV_PIX_FMT_YUVJ422P, kavo::PixelFormat::Yuvj422p},
    {AV_PIX_FMT_RGB24, kavo::PixelFormat::Rgb24},     {AV_PIX_FMT_BGR24, kavo::PixelFormat::Bgr24},
    {AV_PIX_FMT_ARGB, kavo::PixelFormat::Argb},       {AV_PIX_FMT_RGBA, kavo::PixelFormat::Rgba},
    {AV_PIX_FMT_ABGR, kavo::PixelFormat::Abgr},       {AV_PIX_FMT_BGRA, kavo::PixelFormat::Bgra},
};

std::string reason(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  return text;
}

int interrupted(void* stop) { return static_cast<std::atomic<bool> const*>(stop)->load() ? 1 : 0; }

}  // namespace

Input::Input(std::string const& source, Options const& options, std::atomic<bool> const& stop)
    : m_Stop(stop), m_Loop(options.loop), m_Frame(av_frame_alloc()), m_Packet(av_packet_alloc()) {
  av_log_set_level(AV_LOG_QUIET);
  avdevice_register_all();
  open(source, options);
  openDecoder(source.empty() ? "the test pattern" : "'" + source + "'");
  AVRational const rate = av_guess_frame_rate(m_Format.get(), m_Format->streams[m_Stream], nullptr);
  double const framesPerSecond = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
  m_FrameRate = framesPerSecond >= 1 && framesPerSecond <= 240 ? static_cast<int>(std::lround(framesPerSecond))
                                                               : options.frameRate;
  choosePixelFormat();
}

void Input::open(std::string const& source, Options const& options) {
  std::string url = deviceOf(source);
  AVInputFormat const* format = nullptr;
  if (url.empty()) {
    format = av_find_input_format("lavfi");
    Size const size = options.size.value_or(Size{1280, 720});
    url = "testsrc2=size=" + std::to_string(size.width) + "x" + std::to_string(size.height) +
          ":rate=" + std::to_string(options.frameRate);
  } else if (url.starts_with("/dev/video")) {
    format = av_find_input_format("video4linux2");
  }
  AVFormatContext* context = avformat_alloc_context();
  context->interrupt_callback = {interrupted, const_cast<std::atomic<bool>*>(&m_Stop)};
  int const opened = avformat_open_input(&context, url.c_str(), format, nullptr);
  if (opened < 0) {  // the context is freed then
    throw Failure("cannot open '" + (source.empty() ? url : source) + "': " + reason(opened) +
                  "; give a video file, a camera or a URL");
  }
  m_Format.reset(context);
}

void Input::openDecoder(std::string const& name) {
  AVCodec const* codec = nullptr;
  bool const known = avformat_find_stream_info(m_Format.get(), nullptr) >= 0;
  m_Stream = known ? av_find_best_stream(m_Format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0) : -1;
  if (m_Stream < 0) {
    throw Failure("there is no video that FFmpeg can decode in " + name + ": choose another input");
  }
  m_Decoder.reset(avcodec_alloc_context3(codec));
  avcodec_parameters_to_context(m_Decoder.get(), m_Format->streams[m_Stream]->codecpar);
  m_Decoder->thread_count = 0;
  if (avcodec_open2(m_Decoder.get(), codec, nullptr) < 0 || m_Decoder->width <= 0) {
    throw Failure("FFmpeg cannot decode the video of " + name + ": choose another input");
  }
}

void Input::choosePixelFormat() {
  m_PixelFormat = AV_PIX_FMT_YUV420P;
  m_HostFormat = kavo::PixelFormat::Yuv420p;
  for (auto const& [format, number] : hostFormats) {
    if (format == m_Decoder->pix_fmt) {
      m_PixelFormat = format;
      m_HostFormat = number;
    }
  }
  int const bytes = av_image_get_buffer_size(m_PixelFormat, m_Decoder->width, m_Decoder->height, 1);
  m_Packed.resize(static_cast<std::size_t>(bytes));
}

std::optional<std::vector<std::uint8_t> const*> Input::next() {
  while (!decode()) {
    if (m_Stop || !m_Loop || !rewind()) {
      return std::nullopt;
    }
  }
  noteTime();
  pack();
  return &m_Packed;
}

// One frame into m_Frame; false at the end of the input.
bool Input::decode() {
  while (true) {
    int const received = avcodec_receive_frame(m_Decoder.get(), m_Frame.get());
    if (received >= 0) {
      return true;
    }
    if (received != AVERROR(EAGAIN)) {
      return false;
    }
    int const read = av_read_frame(m_Format.get(), m_Packet.get());
    if (read < 0) {
      avcodec_send_packet(m_Decoder.get(), nullptr);  // the frames it holds back come out yet
      continue;
    }
    if (m_Packet->stream_index == m_Stream) {
      avcodec_send_packet(m_Decoder.get(), m_Packet.get());
    }
    av_packet_unref(m_Packet.get());
  }
}

bool Input::rewind() {
  avcodec_flush_buffers(m_Decoder.get());
  m_TimeOffset.reset();
  return m_Time >= 0 && av_seek_frame(m_Format.get(), m_Stream, 0, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY) >= 0;
}

// Times go on evenly where an input has none, starts again or jumps.
void Input::noteTime() {
  double const expected = m_Time < 0 ? 0 : m_Time + 1.0 / m_FrameRate;
  double time = expected;
  if (m_Frame->best_effort_timestamp != AV_NOPTS_VALUE) {
    double const stamp =
        static_cast<double>(m_Frame->best_effort_timestamp) * av_q2d(m_Format->streams[m_Stream]->time_base);
    if (!m_TimeOffset || std::abs(stamp + *m_TimeOffset - expected) > 2) {
      m_TimeOffset = expected - stamp;
    }
    time = stamp + *m_TimeOffset;
  }
  m_Time = time;
}

void Input::pack() {
  auto const format = static_cast<AVPixelFormat>(m_Frame->format);
  if (format == m_PixelFormat && m_Frame->width == m_Decoder->width && m_Frame->height == m_Decoder->height) {
    av_image_copy_to_buffer(m_Packed.data(), static_cast<int>(m_Packed.size()), m_Frame->data, m_Frame->linesize,
                            format, m_Frame->width, m_Frame->height, 1);
    return;
  }
  m_Scaler.reset(sws_getCachedContext(m_Scaler.release(), m_Frame->width, m_Frame->height, format, m_Decoder->width,
                                      m_Decoder->height, m_PixelFormat, SWS_BILINEAR, nullptr, nullptr, nullptr));
  if (!m_Scaler) {
    throw Failure("FFmpeg cannot convert this input's pixel format: choose another input");
  }
  std::uint8_t* planes[4];
  int strides[4];
  av_image_fill_arrays(planes, strides, m_Packed.data(), m_PixelFormat, m_Decoder->width, m_Decoder->height, 1);
  sws_scale(m_Scaler.get(), m_Frame->data, m_Frame->linesize, 0, m_Frame->height, planes, strides);
}
