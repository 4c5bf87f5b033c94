#include "publication.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

void waitUntil(Clock::time_point due, std::atomic<bool> const& stop) {
  while (!stop && Clock::now() < due) {
    std::this_thread::sleep_until(std::min(due, Clock::now() + std::chrono::milliseconds(100)));
  }
}

}  // namespace

Publication::Publication(kavo::Server& server, Options const& options, Options::Input const& input,
                         std::atomic<bool>& stop, Note const& note)
    : m_Name(input.name),
      m_Source(input.source),
      m_Stop(stop),
      m_Input(input.source, options, stop, note),
      m_Session(server.createSession(input.name, input.name)) {
  if (auto const* const copied = m_Input.copied()) {
    createCopy(*copied);
  } else {
    createStream(options, note);
  }
}

Publication::~Publication() {
  if (m_Thread.joinable()) {
    m_Thread.join();
  }
}

kavo::VideoOptions Publication::videoFor(CodecInfo const& codec, Options const& options) const {
  Size const wanted = options.size.value_or(m_Input.size());
  Size const nearest = nearestSize(codec, wanted);
  if (options.size && nearest != wanted) {
    throw Failure(
        std::string(codec.name) + " takes sizes from " + textOf({codec.limits.smallest, codec.limits.smallest}) +
            " to " + textOf({codec.limits.largestWidth, codec.limits.largestHeight}) + " in steps of " +
            std::to_string(codec.limits.step) + ": the nearest to --size " + textOf(wanted) + " is " + textOf(nearest),
        2);
  }
  bool const isJpeg = codec.codec == kavo::Codec::Jpeg;
  kavo::VideoOptions video;
  video.width = isJpeg ? nearest.width : m_Input.size().width;
  video.height = isJpeg ? nearest.height : m_Input.size().height;
  video.format = isJpeg ? kavo::PixelFormat::Yuv420p : m_Input.decoded()->pixelFormat();
  video.codec = codec.codec;
  video.outputWidth = nearest.width;
  video.outputHeight = nearest.height;
  video.frameRate = static_cast<int>(std::lround(m_Input.frameRate()));
  video.bitsPerSecond = options.bitsPerSecond.value_or(
      static_cast<std::int64_t>(codec.bitsPerPixel * nearest.width * nearest.height * video.frameRate));
  return video;
}

// Uses the codec asked for, or the first that works.
void Publication::createStream(Options const& options, Note const& note) {
  for (CodecInfo const& codec : codecs()) {
    if (options.codec && *options.codec != codec.codec) {
      continue;
    }
    m_Codec = &codec;
    m_Video = videoFor(codec, options);
    try {
      m_Stream = std::make_unique<kavo::Stream>(m_Session.createStream(m_Video));
      if (codec.codec == kavo::Codec::Jpeg) {
        m_Input.decoded()->convertForJpeg({m_Video.width, m_Video.height});
      }
      return;
    } catch (kavo::Error const& error) {
      bool const h264 = codec.codec == kavo::Codec::H264;
      if (error.result() == KV_CODEC_FAILURE && options.bitsPerSecond && takesUsualBitrate(options)) {
        throw Failure("--bitrate " + std::to_string(*options.bitsPerSecond) + " is out of range for " + textOf(size()) +
                          " as " + codec.name + ": choose another, or leave it to the default",
                      2);
      }
      if (options.codec || !h264 || error.result() != KV_CODEC_FAILURE) {
        throw Failure("cannot encode " + std::string(codec.name) + " (result " + std::to_string(error.result()) +
                      "): " +
                      (h264 ? "install OpenH264 2.6 (on Debian 13: libopenh264-8), or use --codec jpeg"
                            : "choose another --size or --bitrate"));
      }
      note("OpenH264 2.6 is not installed (on Debian 13: libopenh264-8), so " + m_Name + " is JPEG");
    }
  }
}

// Whether the codec refused only the bitrate. Does not change anything otherwise.
bool Publication::takesUsualBitrate(Options options) {
  options.bitsPerSecond.reset();
  try {
    m_Session.createStream(videoFor(*m_Codec, options));
    return true;
  } catch (kavo::Error const&) {
    return false;
  }
}

void Publication::createCopy(CopyingReader const& input) {
  m_Codec = &infoOf(input.options().codec);
  m_Video.outputWidth = input.size().width;
  m_Video.outputHeight = input.size().height;
  m_Video.bitsPerSecond = std::int64_t{1000} * input.options().kilobitsPerSecond;
  try {
    m_EncodedStream = std::make_unique<kavo::EncodedStream>(m_Session.createEncodedStream(input.options()));
  } catch (kavo::Error const& error) {
    throw Failure("the parameter sets of '" + m_Source + "' cannot be copied (result " +
                  std::to_string(error.result()) + "); leave --copy out to re-encode it");
  }
}

void Publication::submit(std::span<std::uint8_t const> frame) {
  if (m_Stream) {
    m_Stream->submit(frame.data(), frame.size());
  } else {
    m_EncodedStream->submit(frame.data(), frame.size());
  }
}

void Publication::start() {
  m_Running = true;
  m_Thread = std::thread([this] {
    try {
      run();
    } catch (...) {
      m_Failure = std::current_exception();
      m_Stop = true;
    }
    m_Running = false;
  });
}

void Publication::rethrow() const {
  if (m_Failure) {
    std::rethrow_exception(m_Failure);
  }
}

void Publication::run() {
  auto start = Clock::now();
  while (!m_Stop) {
    auto const frame = m_Input.next();
    if (frame.empty()) {
      break;
    }
    auto const due = start + std::chrono::duration_cast<Clock::duration>(Seconds(m_Input.time()));
    waitUntil(due, m_Stop);
    // A lagging input does not have to catch up.
    if (Clock::now() - due > std::chrono::milliseconds(500)) {
      start += Clock::now() - due;
    }
    submit(frame);
  }
}
