#include "input.h"

#include <chrono>
#include <cmath>
#include <thread>
#include <utility>

#include "cameras.h"

extern "C" {
#include <libavdevice/avdevice.h>
}

namespace {

int interrupted(void* stop) { return static_cast<std::atomic<bool> const*>(stop)->load() ? 1 : 0; }

bool isCamera(std::string const& url) { return url.starts_with("/dev/video"); }

// Whether the end of it is a loss: cameras and the network have no end of their own.
bool isLive(AVFormatContext const& format, std::string const& url) {
  return isCamera(url) || (url.find("://") != std::string::npos && !url.starts_with("file:") &&
                           (format.duration == AV_NOPTS_VALUE || format.duration <= 0));
}

std::string titleOf(std::string const& source) { return source.empty() ? "the test pattern" : "'" + source + "'"; }

}  // namespace

Input::Input(std::string const& source, Options const& options, std::atomic<bool> const& stop, Note note)
    : m_Source(source),
      m_Options(options),
      m_Stop(stop),
      m_Note(std::move(note)),
      m_Frame(av_frame_alloc()),
      m_Packet(av_packet_alloc()) {
  av_log_set_level(AV_LOG_QUIET);
  avdevice_register_all();
  open();
  guessFrameRate();
}

void Input::open() {
  std::string url = deviceOf(m_Source);
  AVInputFormat const* format = nullptr;
  if (url.empty()) {
    format = av_find_input_format("lavfi");
    Size const size = m_Options.size.value_or(Size{1280, 720});
    url = "testsrc2=size=" + std::to_string(size.width) + "x" + std::to_string(size.height) +
          ":rate=" + std::to_string(m_Options.frameRate.value_or(25));
  } else if (isCamera(url)) {
    format = av_find_input_format("video4linux2");
  }
  AVFormatContext* context = avformat_alloc_context();
  context->interrupt_callback = {interrupted, const_cast<std::atomic<bool>*>(&m_Stop)};
  int const opened = avformat_open_input(&context, url.c_str(), format, nullptr);
  if (opened < 0) {  // the context is freed then
    throw Failure("cannot open '" + (m_Source.empty() ? url : m_Source) + "': " + reasonOf(opened) +
                  "; give a video file, a camera or a URL");
  }
  m_Format.reset(context);
  m_IsLive = isLive(*m_Format, url);
  openDecoder();
}

void Input::openDecoder() {
  AVCodec const* codec = nullptr;
  bool const known = avformat_find_stream_info(m_Format.get(), nullptr) >= 0;
  m_Stream = known ? av_find_best_stream(m_Format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0) : -1;
  if (m_Stream < 0) {
    throw Failure("there is no video that FFmpeg can decode in " + titleOf(m_Source) + ": choose another input");
  }
  AVStream const& stream = *m_Format->streams[m_Stream];
  m_Decoder.reset(avcodec_alloc_context3(codec));
  avcodec_parameters_to_context(m_Decoder.get(), stream.codecpar);
  m_Decoder->thread_count = 0;
  if (avcodec_open2(m_Decoder.get(), codec, nullptr) < 0 || m_Decoder->width <= 0) {
    throw Failure("FFmpeg cannot decode the video of " + titleOf(m_Source) + ": choose another input");
  }
  m_Frames.setUp(stream, *m_Decoder);
}

void Input::guessFrameRate() {
  AVRational const rate = av_guess_frame_rate(m_Format.get(), m_Format->streams[m_Stream], nullptr);
  double const told = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
  bool const tells = told >= 1 && told <= 240;
  m_FrameRate = tells ? told : m_Options.frameRate.value_or(25);
  if (tells && m_Options.frameRate && !m_Source.empty()) {
    m_Note(titleOf(m_Source) + " tells its own frame rate, so --fps does not change it");
  }
}

std::vector<std::uint8_t> const* Input::next() {
  while (!decode()) {
    if (m_Stop || !goOn()) {
      return nullptr;
    }
  }
  ++m_Count;
  noteTime();
  return &m_Frames.pack(*m_Frame);
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
      m_ReadError = read;
      avcodec_send_packet(m_Decoder.get(), nullptr);  // the frames it holds back come out yet
      continue;
    }
    if (m_Packet->stream_index == m_Stream) {
      avcodec_send_packet(m_Decoder.get(), m_Packet.get());
    }
    av_packet_unref(m_Packet.get());
  }
}

// After the end: false if it is one.
bool Input::goOn() {
  if (m_IsLive) {
    std::string const lost = titleOf(m_Source) + " is lost" +
                             (m_ReadError == AVERROR_EOF ? std::string() : " (" + reasonOf(m_ReadError) + ")");
    if (!m_Options.reconnect) {
      throw Failure(lost + "; with --reconnect it is opened again");
    }
    m_Note(lost + ", opening it again");
    return reconnect();
  }
  if (m_Options.loop) {
    return rewind();
  }
  if (m_Count == 1) {
    m_Note(titleOf(m_Source) + " has one frame; --loop publishes it on and on");
  }
  return false;
}

bool Input::rewind() {
  avcodec_flush_buffers(m_Decoder.get());
  m_TimeOffset.reset();
  return m_Time >= 0 && av_seek_frame(m_Format.get(), m_Stream, 0, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY) >= 0;
}

// Tries every second until the source is back.
bool Input::reconnect() {
  m_TimeOffset.reset();
  while (!m_Stop) {
    try {
      open();
      m_Note(titleOf(m_Source) + " is back");
      return true;
    } catch (Failure const&) {
      auto const again = std::chrono::steady_clock::now() + std::chrono::seconds(1);
      while (!m_Stop && std::chrono::steady_clock::now() < again) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
      }
    }
  }
  return false;
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
