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

using Json = nlohmann::ordered_json;
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

// Of the newest frame that was delivered, in seconds; not a number where there is none.
double ageOf(StreamObserver const& stream) {
  auto const newest = stream.newest();
  return newest ? std::chrono::duration<double>(StreamObserver::Clock::now() - *newest).count()
                : std::numeric_limits<double>::quiet_NaN();
}

Json jsonOf(ViewerFigures const& viewer) {
  auto const& reception = viewer.reception;
  return {
      {"address", viewer.address},
      {"transport", viewer.overUdp ? "udp" : "tcp"},
      {"state", states[static_cast<int>(viewer.state)]},
      {"user", viewer.user},
      {"since", viewer.since},
      {"frames_sent", viewer.framesSent},
      {"frames_dropped", viewer.framesDropped},
      {"bytes_sent", viewer.bytesSent},
      {"loss", lossOf(reception)},
      {"packets_lost", reception.packetsLost},
      {"jitter_ms", reception.jitter / clockRate},
      {"round_trip_ms", reception.roundTrip ? Json(static_cast<double>(reception.roundTrip->count()) / 1000) : Json()},
      {"max_packet", viewer.maxPacket}};
}

Json jsonOf(StreamObserver const& stream) {
  auto const& [name, codec, width, height] = stream.description();
  Json json = {
      {"name", name}, {"codec", codec == KV_CODEC_H264 ? "h264" : "jpeg"}, {"width", width}, {"height", height}};
  for (auto const& count : counts) {
    json[count.name] = stream[count.count];
  }
  json["newest_age_ms"] = 1000 * ageOf(stream);  // null where it is not a number
  json["viewers"] = Json::array();
  for (ViewerObserver const* const viewer : stream.viewers()) {
    json["viewers"].push_back(jsonOf(viewer->figures()));
  }
  return json;
}

// A text as the value of a label, in UTF-8.
std::string labelOf(std::string const& text) { return Json(text).dump(-1, ' ', false, Json::error_handler_t::replace); }

template <class Number>
std::string valueOf(Number value) {
  return value != value ? "NaN" : Json(value).dump();
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
        [&](StreamObserver const& stream) { sample(value(stream), "stream=" + labelOf(stream.description().name)); });
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
  Json streams = Json::array();
  g_Journal->forEachStream([&](StreamObserver const& stream) { streams.push_back(jsonOf(stream)); });
  Json events = Json::array();
  for (auto const& event : journal.events) {
    std::string const times = event.times > 1 ? " (" + std::to_string(event.times) + " times)" : "";
    events.push_back({{"number", event.number},
                      {"time", event.time},
                      {"kind", event.kind},
                      {"stream", event.stream},
                      {"address", event.address},
                      {"text", event.text + times}});
  }
  Json const all = {
      {"pid", getpid()},
      {"version", version()},
      {"port", server.port},
      {"started", server.started},
      {"time", Journal::now()},
      {"connections", server.connections},
      {"sessions", server.sessions},
      {"refused", {{"address", journal.refused[0]}, {"limit", journal.refused[1]}, {"user", journal.refused[2]}}},
      {"last_error", {{"time", journal.lastError.time}, {"text", journal.lastError.text}}},
      {"streams", std::move(streams)},
      {"events", std::move(events)}};
  return all.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string statusAsMetrics(ServerFigures const& server) {
  auto const journal = g_Journal->content();
  Metrics metrics(server.port);
  metrics.family("info", "gauge", "Version of the library.");
  metrics.sample(1, "version=" + labelOf(version()));
  metrics.family("start_time_seconds", "gauge", "When the server was started, since 1970.");
  metrics.sample(server.started);
  metrics.family("connections", "gauge", "RTSP connections.");
  metrics.sample(server.connections);
  metrics.family("sessions", "gauge", "RTSP sessions.");
  metrics.sample(server.sessions);
  metrics.family("refused_total", "counter", "Connections and requests that were refused.");
  for (auto const& [reason, count] : {std::pair("address", journal.refused[0]), std::pair("limit", journal.refused[1]),
                                      std::pair("user", journal.refused[2])}) {
    metrics.sample(count, "reason=" + labelOf(reason));
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
                     "stream=" + labelOf(stream.description().name) + ",transport=" + labelOf(overUdp ? "udp" : "tcp"));
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
