/// @file
/// Kavo Stream for C++17: wraps the records of kavo_stream.h in objects.
///
///   kavo::Server server(8554);
///   kavo::Session session = server.createSession("camera");
///   kavo::VideoOptions video;
///   video.width = 640;
///   video.height = 480;
///   video.format = kavo::PixelFormat::Rgb24;
///   kavo::Stream stream = session.createStream(video);
///   while (grab(pixels)) stream.submit(pixels.data(), pixels.size());
///
/// Everything here is inline; the objects call the one function that the library
/// exports. Different threads may use different objects at the same time; each object
/// must be used by one thread at a time. A process has one server at a time. Objects
/// can be moved, but not copied. Destroying a session or server object ends it; streams
/// and sessions of a server that has ended throw KV_UNKNOWN when used.
#ifndef KAVO_STREAM_HPP
#define KAVO_STREAM_HPP

#include <kavo_stream.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kavo {

/// The failure of a command.
class Error : public std::runtime_error {
 public:
  /// what: the action that failed; advice: what to do about it.
  Error(std::string const& what, int result, std::string const& advice = "")
      : std::runtime_error(what + ": " + kv_result_text(result) + (advice.empty() ? "" : ": " + advice)),
        m_Result(static_cast<kv_result>(result)) {}

  /// The command's result code.
  kv_result result() const noexcept { return m_Result; }

 private:
  kv_result m_Result;
};

/// Layouts of raw frames, tightly packed: see kv_pixel_format.
enum class PixelFormat : std::int32_t {
  Yuv420p = KV_YUV420P,
  Rgb24 = KV_RGB24,
  Bgr24 = KV_BGR24,
  Yuv422p = KV_YUV422P,
  Yuvj420p = KV_YUVJ420P,
  Yuvj422p = KV_YUVJ422P,
  Argb = KV_ARGB,
  Rgba = KV_RGBA,
  Abgr = KV_ABGR,
  Bgra = KV_BGRA,
};

/// Codecs; H265 is for EncodedStream only.
enum class Codec : std::int32_t { Jpeg = KV_CODEC_MJPEG, H264 = KV_CODEC_H264, H265 = KV_CODEC_H265 };

/// The sizes of encoded frames that a codec supports, in pixels.
struct SizeLimits {
  int step;           ///< width and height must be multiples of this
  int smallest;       ///< width and height
  int largestWidth;   ///< whatever the height
  int largestHeight;  ///< whatever the width
};

/// The limits of the codec. JPEG: the sizes RTP/JPEG can represent.
constexpr SizeLimits sizeLimits(Codec codec) {
  return codec == Codec::Jpeg ? SizeLimits{8, 16, 2040, 2040} : SizeLimits{2, 16, 4096, 2304};
}

/// The size of one frame in bytes, without padding.
constexpr std::size_t frameSize(PixelFormat format, int width, int height) {
  auto const pixels = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
  auto const halfWidth = (static_cast<std::size_t>(width) + 1) / 2;
  auto const halfHeight = (static_cast<std::size_t>(height) + 1) / 2;
  switch (format) {
    case PixelFormat::Rgb24:
    case PixelFormat::Bgr24:
      return pixels * 3;
    case PixelFormat::Yuv420p:
    case PixelFormat::Yuvj420p:
      return pixels + 2 * halfWidth * halfHeight;
    case PixelFormat::Yuv422p:
    case PixelFormat::Yuvj422p:
      return pixels + 2 * halfWidth * static_cast<std::size_t>(height);
    default:
      return pixels * 4;
  }
}

/// The parameters of a stream of raw frames.
struct VideoOptions {
  int width = 0;                              ///< of the submitted frames, pixels
  int height = 0;                             ///< of the submitted frames, pixels
  PixelFormat format = PixelFormat::Yuv420p;  ///< of the submitted frames
  Codec codec = Codec::H264;                  ///< of the published stream
  int outputWidth = 0;                        ///< of the published frames, pixels; 0: as submitted
  int outputHeight = 0;                       ///< of the published frames, pixels; 0: as submitted
  int frameRate = 25;                         ///< submitted frames per second
  std::int64_t bitsPerSecond = 0;             ///< for either codec; 0: a default for the size
};

/// @cond
namespace detail {

inline void call(char const* what, int command, void* param, int size) {
  int const result = kv_Stream(command, param, size);
  if (result != KV_OK) {
    throw Error(what, result);
  }
}

template <class Record>
void call(char const* what, int command, Record& record) {
  call(what, command, &record, static_cast<int>(sizeof record));
}

/// Changes whenever a server starts or ends: handles are reused, so a session of a server that
/// has ended may have the same handle as a session of the current one.
inline std::atomic<unsigned> serverNumber{0};

inline void requireServer(unsigned number) {
  if (number != serverNumber) {
    throw Error("using a session", KV_UNKNOWN, "its server has ended");
  }
}

template <std::size_t Size>
void copy(char (&field)[Size], std::string const& text, char const* what) {
  if (text.empty() || text.size() >= Size) {
    throw Error(std::string(what) + " takes 1 to " + std::to_string(Size - 1) + " characters", KV_INVALID_PARAMETER);
  }
  std::memcpy(field, text.c_str(), text.size() + 1);
}

}  // namespace detail
/// @endcond

/// A stream's status. Counts start when the stream is created.
struct StreamStatus {
  std::uint32_t viewers;     ///< how many are playing or about to
  bool wantsFrame;           ///< somebody is watching: a submitted frame would be encoded
  bool wantsKeyFrame;        ///< a viewer needs a key frame; the next frame becomes one
  std::uint64_t offered;     ///< frames submitted
  std::uint64_t encoded;     ///< frames encoded
  std::uint64_t unwatched;   ///< frames not encoded because nobody watched
  std::uint64_t failed;      ///< frames that could not be encoded
  std::uint64_t sentFrames;  ///< frames sent to at least one viewer
  std::uint64_t sentBytes;   ///< bytes of RTP packets sent, to all viewers
};

/// @cond
namespace detail {

inline StreamStatus statusOf(kv_session_handle session, kv_stream_id stream, unsigned server) {
  requireServer(server);
  kv_status_record record{};
  record.handle = session;
  record.stream = stream;
  call("asking for a stream's status", KV_GET_STATUS, record);
  return {record.viewers,
          (record.wanted & KV_WANTS_FRAME) != 0,
          (record.wanted & KV_WANTS_KEY_FRAME) != 0,
          record.offered,
          record.encoded,
          record.unwatched,
          record.failed,
          record.sent_frames,
          record.sent_bytes};
}

}  // namespace detail
/// @endcond

/// A session's one video stream.
class Stream {
 public:
  /// Submits one frame, of at least frameSize() bytes. Returns when it is encoded and queued, or
  /// at once if nobody is watching. The frame is read during the call only. Throws Error.
  void submit(void const* frame, std::size_t size) {
    if (size < m_FrameSize) {
      throw Error("a frame of " + std::to_string(size) + " bytes, but " + std::to_string(m_FrameSize) + " are needed",
                  KV_INVALID_PARAMETER);
    }
    detail::requireServer(m_Server);
    m_Record.frame = static_cast<std::uint8_t const*>(frame);
    detail::call("submitting a frame", KV_SUBMIT_FRAME, m_Record);
  }

  /// The stream's status. Does not wait for submits. Throws Error.
  StreamStatus status() const { return detail::statusOf(m_Record.handle, m_Record.stream, m_Server); }

  /// The size of one frame in bytes.
  std::size_t frameSize() const noexcept { return m_FrameSize; }

 private:
  friend class Session;
  Stream(kv_session_handle session, kv_stream_id stream, std::size_t size) : m_FrameSize(size) {
    m_Record.handle = session;
    m_Record.stream = stream;
  }

  kv_frame_record m_Record{};
  std::size_t m_FrameSize;
  unsigned m_Server = detail::serverNumber;
};

/// The parameters of an EncodedStream.
struct EncodedOptions {
  Codec codec = Codec::H264;  ///< of the frames
  int kilobitsPerSecond = 0;  ///< for the SDP; 0: unknown
  /// SPS and PPS, for H.265 also the VPS, in Annex B form; empty: taken from the frames.
  std::vector<std::uint8_t> parameterSets{};
};

/// Whether viewers need the next frame, and as what.
struct Wanted {
  bool frame;     ///< somebody is watching: the encoder should run
  bool keyFrame;  ///< a viewer needs a key frame
};

/// A session's one video stream, for frames from the host's own encoder.
class EncodedStream {
 public:
  /// Submits one access unit (H.264 and H.265: Annex B, no B-frames) or one JPEG image. Returns when it
  /// is queued, or at once if nobody is watching. The data is read during the call only. timeNanoseconds
  /// is the capture time on CLOCK_MONOTONIC, later than the previous frame's; 0: now. Throws Error.
  Wanted submit(void const* data, std::size_t size, std::int64_t timeNanoseconds = 0) {
    detail::requireServer(m_Server);
    m_Record.data = static_cast<std::uint8_t const*>(data);
    m_Record.size = size;
    m_Record.time_ns = timeNanoseconds;
    detail::call("submitting an encoded frame", KV_SUBMIT_ENCODED, m_Record);
    return {(m_Record.wanted & KV_WANTS_FRAME) != 0, (m_Record.wanted & KV_WANTS_KEY_FRAME) != 0};
  }

  /// The stream's status. Does not wait for submits. Throws Error.
  StreamStatus status() const { return detail::statusOf(m_Record.handle, m_Record.stream, m_Server); }

 private:
  friend class Session;
  EncodedStream(kv_session_handle session, kv_stream_id stream) {
    m_Record.handle = session;
    m_Record.stream = stream;
  }

  kv_encoded_frame_record m_Record{};
  unsigned m_Server = detail::serverNumber;
};

/// One RTSP URL.
class Session {
 public:
  /// Takes over the other's session.
  Session(Session&& other) noexcept : m_Record(std::exchange(other.m_Record, {})), m_Server(other.m_Server) {}
  /// Ends its own session and takes over the other's.
  Session& operator=(Session&& other) noexcept {
    if (this != &other) {
      remove();
      m_Record = std::exchange(other.m_Record, {});
      m_Server = other.m_Server;
    }
    return *this;
  }
  /// Removes the session and disconnects its viewers.
  ~Session() { remove(); }

  /// The URL, with the address that the machine had when the session was created; 127.0.0.1 if it was
  /// offline.
  std::string url() const { return m_Record.url; }
  /// The last part of the URL.
  std::string name() const { return m_Record.name; }

  /// Creates the session's stream; a session has at most one. Throws Error.
  Stream createStream(VideoOptions const& options) {
    detail::requireServer(m_Server);
    kv_video_record video{};
    video.src_width = options.width;
    video.src_height = options.height;
    video.dst_width = options.outputWidth != 0 ? options.outputWidth : options.width;
    video.dst_height = options.outputHeight != 0 ? options.outputHeight : options.height;
    video.src_pixel_format = static_cast<std::int32_t>(options.format);
    video.dst_codec = static_cast<std::int32_t>(options.codec);
    video.frame_rate = options.frameRate;
    video.bitrate = bitrateOf(options, video);
    kv_stream_record stream{};
    stream.handle = m_Record.handle;
    stream.media_type = KV_MEDIA_VIDEO;
    stream.video = &video;
    int const result = kv_Stream(KV_CREATE_STREAM, &stream, static_cast<int>(sizeof stream));
    if (result != KV_OK) {
      throw Error("creating a stream", result, result == KV_CODEC_FAILURE ? adviceFor(options.codec, video) : "");
    }
    return Stream(m_Record.handle, stream.stream, frameSize(options.format, options.width, options.height));
  }

  /// Creates the session's stream for encoded frames; a session has at most one stream. Throws Error.
  EncodedStream createEncodedStream(EncodedOptions const& options) {
    detail::requireServer(m_Server);
    kv_encoded_stream_record stream{};
    stream.handle = m_Record.handle;
    stream.codec = static_cast<std::int32_t>(options.codec);
    stream.bitrate = options.kilobitsPerSecond;
    stream.parameter_sets = options.parameterSets.empty() ? nullptr : options.parameterSets.data();
    stream.parameter_size = static_cast<std::int32_t>(options.parameterSets.size());
    detail::call("creating a stream of encoded frames", KV_CREATE_ENCODED_STREAM, stream);
    return EncodedStream(m_Record.handle, stream.stream);
  }

 private:
  friend class Server;
  Session(std::string const& name, std::string const& description) {
    detail::copy(m_Record.name, name, "a session's name");
    detail::copy(m_Record.info, description, "a session's description");
    detail::copy(m_Record.description, description, "a session's description");
    detail::call("creating a session", KV_CREATE_SESSION, m_Record);
  }

  void remove() noexcept {
    if (m_Record.handle != nullptr && m_Server == detail::serverNumber) {
      kv_Stream(KV_REMOVE_SESSION, m_Record.handle, static_cast<int>(sizeof m_Record.handle));
      m_Record.handle = nullptr;
    }
  }

  /// The likely cause of a refusal, with the nearest size that would work.
  static std::string adviceFor(Codec codec, kv_video_record const& video) {
    bool const jpeg = codec == Codec::Jpeg;
    SizeLimits const limits = sizeLimits(codec);
    auto const textOf = [](int width, int height) { return std::to_string(width) + "x" + std::to_string(height); };
    auto const nearest = [&](int length, int largest) {
      int const rounded = length / limits.step * limits.step;
      return rounded < limits.smallest ? limits.smallest : rounded > largest ? largest : rounded;
    };
    std::string const size = textOf(video.dst_width, video.dst_height);
    std::string const fitting =
        textOf(nearest(video.dst_width, limits.largestWidth), nearest(video.dst_height, limits.largestHeight));
    if (size != fitting) {
      return std::string(jpeg ? "JPEG" : "H.264") + " takes sizes up to " +
             textOf(limits.largestWidth, limits.largestHeight) + " in steps of " + std::to_string(limits.step) +
             "; nearest to " + size + " is " + fitting;
    }
    return jpeg ? "try another bitrate" : "is OpenH264 2.6 installed (libopenh264.so)? if so, try another bitrate";
  }

  /// In the record, JPEG's bitrate is per frame and H.264's per second.
  static std::int32_t bitrateOf(VideoOptions const& options, kv_video_record const& video) {
    bool const jpeg = options.codec == Codec::Jpeg;
    double const rate = options.frameRate > 0 ? options.frameRate : 1;
    double const pixels = static_cast<double>(video.dst_width) * video.dst_height;
    double const perSecond =
        options.bitsPerSecond > 0 ? static_cast<double>(options.bitsPerSecond) : pixels * rate * (jpeg ? 1.2 : 0.1);
    double const bitrate = jpeg ? perSecond / rate : perSecond;
    return bitrate < 1 ? 1 : bitrate > 2e9 ? 2000000000 : static_cast<std::int32_t>(bitrate);
  }

  kv_session_record m_Record{};
  unsigned m_Server = detail::serverNumber;
};

/// The process's RTSP server, from construction to destruction.
class Server {
 public:
  /// Serves on the TCP port of all addresses. Throws Error.
  explicit Server(std::uint16_t port = 8554) {
    std::uint32_t record = port;
    detail::call("starting the server", KV_INIT, record);
    ++detail::serverNumber;
  }
  /// Takes over the other's server.
  Server(Server&& other) noexcept : m_Serving(std::exchange(other.m_Serving, false)) {}
  /// Stops its own server and takes over the other's.
  Server& operator=(Server&& other) noexcept {
    if (this != &other) {
      stop();
      m_Serving = std::exchange(other.m_Serving, false);
    }
    return *this;
  }
  /// Stops the server and ends all sessions.
  ~Server() { stop(); }

  /// Creates a session. The name is the last part of the URL; players show the description as the title.
  /// Both take 1 to 19 bytes. Throws Error.
  Session createSession(std::string const& name, std::string const& description = "live video") {
    return Session(name, description);
  }

 private:
  void stop() noexcept {
    if (std::exchange(m_Serving, false)) {
      kv_Stream(KV_EXIT, nullptr, 0);
      ++detail::serverNumber;
    }
  }

  bool m_Serving = true;
};

}  // namespace kavo

#endif  // KAVO_STREAM_HPP
