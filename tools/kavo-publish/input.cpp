#include "input.h"

#include <chrono>
#include <cmath>
#include <thread>
#include <utility>
#include <vector>

#include "cameras.h"

extern "C" {
#include <libavdevice/avdevice.h>
}

namespace {

int interrupted(void* stop) { return static_cast<std::atomic<bool> const*>(stop)->load() ? 1 : 0; }

bool isCamera(std::string const& url) { return url.starts_with("/dev/video"); }

// Whether its end is a loss: cameras and network streams do not end by themselves.
bool isLive(AVFormatContext const& format, std::string const& url) {
  return isCamera(url) || (url.find("://") != std::string::npos && !url.starts_with("file:") &&
                           (format.duration == AV_NOPTS_VALUE || format.duration <= 0));
}

std::string titleOf(std::string const& source) { return source.empty() ? "the test pattern" : "'" + source + "'"; }

}  // namespace

Input::Input(std::string const& source, Options const& options, std::atomic<bool> const& stop, Note note)
    : m_Source(source), m_Options(options), m_Stop(stop), m_Note(std::move(note)), m_Packet(av_packet_alloc()) {
  if (options.copy) {
    m_Reader = std::make_unique<CopyingReader>();
  } else {
    m_Reader = std::make_unique<DecodingReader>();
  }
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
  if (int const opened = openFormat(format, url); opened < 0) {
    throw Failure("cannot open '" + (m_Source.empty() ? url : m_Source) + "': " + reasonOf(opened) +
                  "; give a video file, a camera or a URL");
  }
  m_IsLive = isLive(*m_Format, url);
  openReader();
}

// For copying, asks cameras that encode for the codecs that can be copied.
int Input::openFormat(AVInputFormat const* format, std::string const& url) {
  std::vector<char const*> codecs = {nullptr};
  if (m_Options.copy && isCamera(url)) {
    codecs = {"mjpeg", "h264", "hevc"};
  }
  int opened = 0;
  for (char const* const codec : codecs) {
    AVFormatContext* context = avformat_alloc_context();
    context->interrupt_callback = {interrupted, const_cast<std::atomic<bool>*>(&m_Stop)};
    AVDictionary* wanted = nullptr;
    if (codec != nullptr) {
      av_dict_set(&wanted, "input_format", codec, 0);
    }
    opened = avformat_open_input(&context, url.c_str(), format, &wanted);  // frees the context where it fails
    av_dict_free(&wanted);
    if (opened >= 0) {
      m_Format.reset(context);
      break;
    }
  }
  return opened;
}

void Input::openReader() {
  AVCodec const* codec = nullptr;
  bool const known = avformat_find_stream_info(m_Format.get(), nullptr) >= 0;
  m_Stream = known ? av_find_best_stream(m_Format.get(), AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0) : -1;
  if (m_Stream < 0) {
    throw Failure("no decodable video stream in " + titleOf(m_Source) + ": choose another input");
  }
  m_Reader->open(*m_Format->streams[m_Stream], *codec, titleOf(m_Source));
  bool const hasSound = av_find_best_stream(m_Format.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0) >= 0;
  if (hasSound && m_Count == 0) {
    m_Note("the sound of " + titleOf(m_Source) + " is not published");
  }
}

void Input::guessFrameRate() {
  AVRational const rate = av_guess_frame_rate(m_Format.get(), m_Format->streams[m_Stream], nullptr);
  double const rateOfInput = rate.num > 0 && rate.den > 0 ? av_q2d(rate) : 0;
  bool const isKnown = rateOfInput >= 1 && rateOfInput <= 240;
  m_FrameRate = isKnown ? rateOfInput : m_Options.frameRate.value_or(25);
  if (isKnown && m_Options.frameRate && !m_Source.empty()) {
    m_Note(titleOf(m_Source) + " has a frame rate of its own, which --fps does not change");
  }
}

std::span<std::uint8_t const> Input::next() {
  while (!read()) {
    if (m_Stop || !goOn()) {
      return {};
    }
  }
  ++m_Count;
  noteTime();
  return m_Reader->frame();
}

// Reads one frame into the reader; false at the end of the input.
bool Input::read() {
  while (true) {
    int const received = m_Reader->receive();
    if (received >= 0) {
      return true;
    }
    if (received != AVERROR(EAGAIN)) {
      return false;
    }
    int const error = av_read_frame(m_Format.get(), m_Packet.get());
    if (error < 0) {
      m_ReadError = error;
      m_Reader->send(nullptr);  // flushes the frames that it still holds
      continue;
    }
    if (m_Packet->stream_index == m_Stream) {
      m_Reader->send(m_Packet.get());
    }
    av_packet_unref(m_Packet.get());
  }
}

// What to do at the end of the input; false if it really ends.
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
  m_Reader->restart();
  m_TimeOffset.reset();
  // A raw video file has no times to seek to.
  return m_Time >= 0 && (av_seek_frame(m_Format.get(), m_Stream, 0, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_ANY) >= 0 ||
                         av_seek_frame(m_Format.get(), m_Stream, 0, AVSEEK_FLAG_BYTE) >= 0);
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

// Times continue evenly if an input has none, restarts or jumps.
void Input::noteTime() {
  double const expected = m_Time < 0 ? 0 : m_Time + 1.0 / m_FrameRate;
  double time = expected;
  if (m_Reader->time() != AV_NOPTS_VALUE) {
    double const stamp = static_cast<double>(m_Reader->time()) * av_q2d(m_Format->streams[m_Stream]->time_base);
    if (!m_TimeOffset || std::abs(stamp + *m_TimeOffset - expected) > 2) {
      m_TimeOffset = expected - stamp;
    }
    time = stamp + *m_TimeOffset;
  }
  m_Time = time;
}
