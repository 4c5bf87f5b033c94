#include "operate/statustext.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>

#include "kavo_stream.h"
#include "operate/journal.h"

namespace kavo::impl {

namespace {

constexpr char const* states[] = {"set up", "joining", "awaiting key frame", "playing", "paused"};
constexpr double clockRate = 90;  // of RTP time, per millisecond

constexpr struct {
  Count count;
  char const* name;
  char const* metric;
  char const* help;
} counts[] = {
    {Count::Offered, "offered", "frames_offered_total", "Frames that the host has submitted."},
    {Count::Encoded, "encoded", "frames_encoded_total", "Frames that were encoded."},
    {Count::Unwatched, "unwatched", "frames_unwatched_total", "Frames not encoded because nobody watched."},
    {Count::Skipped, "skipped", "frames_skipped_total", "Frames that rate control skipped."},
    {Count::Failed, "failed", "frames_failed_total", "Frames that could not be encoded."},
    {Count::QueueFull, "queue_full", "frames_queue_full_total", "Frames not encoded because the queue was full."},
    {Count::SentFrames, "sent_frames", "frames_sent_total", "Frames that were sent to viewers."},
    {Count::SentBytes, "sent_bytes", "sent_bytes_total", "Bytes of RTP packets that were sent to viewers."},
    {Count::KeyFramesRequested, "key_frames_requested", "key_frames_requested_total",
     "Key frames that viewers needed."},
};

std::string version() {
  return std::to_string(KV_VERSION_MAJOR) + "." + std::to_string(KV_VERSION_MINOR) + "." +
         std::to_string(KV_VERSION_PATCH);
}

double lossOf(Reception const& reception) { return reception.fractionLost / 256.0; }

// The age of the newest frame delivered, in seconds; NaN if there is none.
double ageOf(StreamObserver const& stream) {
  auto const newest = stream.newest();
  return newest ? std::chrono::duration<double>(StreamObserver::Clock::now() - *newest).count()
                : std::numeric_limits<double>::quiet_NaN();
}

template <class Value>
std::string jsonOf(Value const& value) {
  return nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// A JSON object or array as text. nlohmann's own objects allocate memory in their destructors,
// which ends a process that is out of memory; its strings and numbers do not.
class JsonText {
 public:
  explicit JsonText(char const (&brackets)[3]) : m_End(brackets[1]), m_Text(1, brackets[0]) {}

  // Appends an item that is JSON already.
  JsonText& item(std::string const& json) {
    m_Text += m_Text.size() > 1 ? "," + json : json;
    return *this;
  }
  JsonText& member(char const* name, JsonText const& value) { return item(jsonOf(name) + ":" + value.text()); }
  template <class Value>
  JsonText& member(char const* name, Value const& value) {
    return item(jsonOf(name) + ":" + jsonOf(value));
  }
  std::string text() const { return m_Text + m_End; }

 private:
  char const m_End;
  std::string m_Text;
};

JsonText textOf(ViewerFigures const& viewer) {
  auto const& reception = viewer.reception;
  // JSON has null for NaN.
  double const roundTrip = reception.roundTrip ? static_cast<double>(reception.roundTrip->count()) / 1000
                                               : std::numeric_limits<double>::quiet_NaN();
  return JsonText("{}")
      .member("address", viewer.address)
      .member("transport", viewer.overUdp ? "udp" : "tcp")
      .member("state", states[static_cast<int>(viewer.state)])
      .member("user", viewer.user)
      .member("since", viewer.since)
      .member("frames_sent", viewer.framesSent)
      .member("frames_dropped", viewer.framesDropped)
      .member("bytes_sent", viewer.bytesSent)
      .member("loss", lossOf(reception))
      .member("packets_lost", reception.packetsLost)
      .member("jitter_ms", reception.jitter / clockRate)
      .member("round_trip_ms", roundTrip)
      .member("max_packet", viewer.maxPacket);
}

JsonText textOf(StreamObserver const& stream) {
  auto const& [name, codec, width, height] = stream.description();
  JsonText text("{}");
  text.member("name", name)
      .member("codec", codec == KV_CODEC_H265   ? "h265"
                       : codec == KV_CODEC_H264 ? "h264"
                                                : "jpeg")
      .member("width", width)
      .member("height", height);
  for (auto const& count : counts) {
    text.member(count.name, stream[count.count]);
  }
  JsonText viewers("[]");
  for (ViewerObserver const* const viewer : stream.viewers()) {
    viewers.item(textOf(viewer->figures()).text());
  }
  return text.member("newest_age_ms", 1000 * ageOf(stream)).member("viewers", viewers);
}

JsonText textOf(Journal::Event const& event) {
  std::string const times = event.times > 1 ? " (" + std::to_string(event.times) + " times)" : "";
  return JsonText("{}")
      .member("number", event.number)
      .member("time", event.time)
      .member("kind", event.kind)
      .member("stream", event.stream)
      .member("address", event.address)
      .member("text", event.text + times);
}

template <class Number>
std::string valueOf(Number value) {
  return value != value ? "NaN" : jsonOf(value);
}

class Metrics {
 public:
  explicit Metrics(unsigned port) : m_Port("port=\"" + std::to_string(port) + "\"") {}

  void family(char const* name, char const* type, char const* help) {
    m_Name = std::string("kavo_") + name;
    m_Text += "# HELP " + m_Name + " " + help + "\n# TYPE " + m_Name + " " + type + "\n";
  }
  template <class Number>
  void sample(Number value, std::string const& label = "") {
    m_Text += m_Name + "{" + m_Port + (label.empty() ? "" : "," + label) + "} " + valueOf(value) + "\n";
  }
  template <class Value>
  void perStream(char const* name, char const* type, char const* help, Value const& value) {
    family(name, type, help);
    g_Journal->forEachStream(
        [&](StreamObserver const& stream) { sample(value(stream), "stream=" + jsonOf(stream.description().name)); });
  }
  std::string take() { return std::move(m_Text); }

 private:
  std::string const m_Port;
  std::string m_Name;
  std::string m_Text;
};

}  // namespace

std::string statusAsJson(ServerFigures const& server) {
  auto const journal = g_Journal->content();
  JsonText streams("[]");
  g_Journal->forEachStream([&](StreamObserver const& stream) { streams.item(textOf(stream).text()); });
  JsonText events("[]");
  for (auto const& event : journal.events) {
    events.item(textOf(event).text());
  }
  auto const refused = JsonText("{}")
                           .member("address", journal.refused[0])
                           .member("limit", journal.refused[1])
                           .member("user", journal.refused[2]);
  auto const lastError = JsonText("{}").member("time", journal.lastError.time).member("text", journal.lastError.text);
  return JsonText("{}")
             .member("pid", getpid())
             .member("version", version())
             .member("port", server.port)
             .member("started", server.started)
             .member("time", Journal::now())
             .member("connections", server.connections)
             .member("sessions", server.sessions)
             .member("refused", refused)
             .member("last_error", lastError)
             .member("streams", streams)
             .member("events", events)
             .text() +
         "\n";
}

std::string statusAsMetrics(ServerFigures const& server) {
  auto const journal = g_Journal->content();
  Metrics metrics(server.port);
  metrics.family("info", "gauge", "Version of the library.");
  metrics.sample(1, "version=" + jsonOf(version()));
  metrics.family("start_time_seconds", "gauge", "When the server was started, since 1970.");
  metrics.sample(server.started);
  metrics.family("connections", "gauge", "RTSP connections.");
  metrics.sample(server.connections);
  metrics.family("sessions", "gauge", "RTSP sessions.");
  metrics.sample(server.sessions);
  metrics.family("refused_total", "counter", "Connections and requests that were refused.");
  for (auto const& [reason, count] : {std::pair("address", journal.refused[0]), std::pair("limit", journal.refused[1]),
                                      std::pair("user", journal.refused[2])}) {
    metrics.sample(count, "reason=" + jsonOf(reason));
  }
  if (journal.lastError.time > 0) {
    metrics.family("last_error_seconds", "gauge", "Seconds since a command of the host failed.");
    metrics.sample(Journal::now() - journal.lastError.time);
  }
  for (auto const& [count, name, metric, help] : counts) {
    metrics.perStream(metric, "counter", help, [which = count](StreamObserver const& stream) { return stream[which]; });
  }
  metrics.family("viewers", "gauge", "Viewers of a stream.");
  g_Journal->forEachStream([&](StreamObserver const& stream) {
    for (bool const overUdp : {true, false}) {
      auto const count = std::ranges::count_if(
          stream.viewers(), [&](auto const* viewer) { return viewer->figures().overUdp == overUdp; });
      metrics.sample(count,
                     "stream=" + jsonOf(stream.description().name) + ",transport=" + jsonOf(overUdp ? "udp" : "tcp"));
    }
  });
  metrics.perStream("viewer_loss_ratio_max", "gauge", "Packet loss of the viewer that loses most.",
                    [](StreamObserver const& stream) {
                      double worst = 0;
                      for (ViewerObserver const* const viewer : stream.viewers()) {
                        worst = std::max(worst, lossOf(viewer->figures().reception));
                      }
                      return worst;
                    });
  metrics.perStream("newest_frame_age_seconds", "gauge", "Since the newest frame that was sent was submitted.", ageOf);
  return metrics.take();
}

}  // namespace kavo::impl
