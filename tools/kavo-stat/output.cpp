#include "output.h"

#include <kavo_stream.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <vector>

#include "status/statusreader.h"

namespace {

using Json = nlohmann::ordered_json;

template <std::size_t Size>
char const* nameIn(char const* const (&names)[Size], std::uint64_t number) {
  return number < Size ? names[number] : "unknown";
}

char const* stateOf(kv_status_viewer const& viewer) {
  static constexpr char const* names[] = {"", "set up", "awaiting key frame", "playing", "paused"};
  return nameIn(names, viewer.state);
}

char const* transportOf(kv_status_viewer const& viewer) { return viewer.transport == KV_STATUS_UDP ? "udp" : "tcp"; }

char const* codecOf(kv_status_stream const& stream) { return stream.codec == KV_CODEC_H264 ? "h264" : "jpeg"; }

char const* kindOf(kv_status_event const& event) {
  static constexpr char const* names[] = {"",          "joined",  "left",     "dropped", "paused",
                                          "key frame", "refused", "narrowed", "failed"};
  return nameIn(names, event.kind);
}

char const* commandOf(int command) {
  static constexpr char const* names[] = {"init",          "exit",         "create session", "remove session",
                                          "create stream", "submit frame", "get info"};
  return nameIn(names, static_cast<std::uint64_t>(command));
}

double secondsSince(std::uint64_t time) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  double const since =
      static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 - static_cast<double>(time) / 1e6;
  return std::max(since, 0.0);
}

std::string timeText(std::uint64_t time) {
  auto const seconds = static_cast<std::time_t>(time / 1000000);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  char text[40] = {};
  std::size_t const size = std::strftime(text, sizeof text, "%F %T", &parts);
  std::snprintf(text + size, sizeof text - size, ".%03d", static_cast<int>(time / 1000 % 1000));
  return text;
}

[[gnu::format(printf, 1, 2)]] std::string text(char const* format, ...) {
  char buffer[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(buffer, sizeof buffer, format, arguments);
  va_end(arguments);
  return buffer;
}

std::uint64_t droppedOf(kv_status_stream const& stream) { return stream.dropped_unwatched + stream.dropped_full; }

// Texts come from hosts and networks.
std::string printable(char const* from) {
  std::string result = from;
  std::replace_if(result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return result;
}

std::vector<std::size_t> streamsOf(kv_status_page const& page) {
  std::vector<std::size_t> indices;
  for (std::size_t i = 0; i < KV_STATUS_STREAMS; ++i) {
    if (page.streams[i].codec != 0) {
      indices.push_back(i);
    }
  }
  std::stable_sort(indices.begin(), indices.end(),
                   [&](std::size_t a, std::size_t b) { return page.streams[a].since < page.streams[b].since; });
  return indices;
}

std::vector<kv_status_viewer const*> viewersOf(kv_status_page const& page, std::size_t stream) {
  std::vector<kv_status_viewer const*> viewers;
  for (kv_status_viewer const& viewer : page.viewers) {
    if (viewer.state != KV_STATUS_NOBODY && viewer.stream == stream) {
      viewers.push_back(&viewer);
    }
  }
  return viewers;
}

std::vector<kv_status_event const*> eventsOf(kv_status_page const& page, std::uint64_t after) {
  std::vector<kv_status_event const*> events;
  for (kv_status_event const& event : page.events) {
    if (event.number > after) {
      events.push_back(&event);
    }
  }
  std::sort(events.begin(), events.end(), [](auto const* a, auto const* b) { return a->number < b->number; });
  return events;
}

Json jsonOf(kv_status_viewer const& viewer) {
  return {{"address", viewer.address},
          {"transport", transportOf(viewer)},
          {"state", stateOf(viewer)},
          {"seconds", secondsSince(viewer.since)},
          {"frames_sent", viewer.frames_sent},
          {"frames_dropped", viewer.frames_dropped},
          {"bytes_sent", viewer.bytes_sent},
          {"loss", viewer.loss / 256.0},
          {"packets_lost", viewer.lost},
          {"jitter_ms", viewer.jitter / 1e3},
          {"round_trip_ms", viewer.round_trip > 0 ? Json(viewer.round_trip / 1e3) : Json(nullptr)}};
}

Json jsonOf(kv_status_page const& page, std::size_t index) {
  kv_status_stream const& stream = page.streams[index];
  Json viewers = Json::array();
  for (kv_status_viewer const* viewer : viewersOf(page, index)) {
    viewers.push_back(jsonOf(*viewer));
  }
  return {{"name", stream.name},
          {"codec", codecOf(stream)},
          {"width", stream.width},
          {"height", stream.height},
          {"source_width", stream.source_width},
          {"source_height", stream.source_height},
          {"frame_rate", stream.frame_rate},
          {"seconds", secondsSince(stream.since)},
          {"offered", stream.offered},
          {"encoded", stream.encoded},
          {"dropped", droppedOf(stream)},
          {"dropped_unwatched", stream.dropped_unwatched},
          {"dropped_full", stream.dropped_full},
          {"skipped", stream.skipped},
          {"failed", stream.failed},
          {"key_frames", stream.key_frames},
          {"key_frames_asked", stream.key_frames_asked},
          {"bytes", stream.bytes},
          {"encoding_seconds", static_cast<double>(stream.encoding) / 1e6},
          {"sent", stream.sent},
          {"newest_age", stream.newest > 0 ? Json(secondsSince(stream.newest)) : Json(nullptr)},
          {"viewers", viewers}};
}

Json jsonOf(kv_status_event const& event) {
  return {{"number", event.number},
          {"time", static_cast<double>(event.time) / 1e6},
          {"kind", kindOf(event)},
          {"stream", event.stream},
          {"text", event.text}};
}

// A label's value, as the format wants it.
std::string escaped(char const* value) {
  std::string result;
  for (; *value != '\0'; ++value) {
    if (*value == '\\' || *value == '"') {
      result += '\\';
    }
    result += *value == '\n' ? ' ' : *value;
  }
  return result;
}

// Metrics of one name follow each other, under one heading.
class Metric {
 public:
  Metric(std::string& out, char const* name, char const* type, char const* help) : m_Out(out), m_Name(name) {
    m_Out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
  }
  void add(double value, std::string const& labels = "") {
    m_Out += m_Name + (labels.empty() ? "" : "{" + labels + "}") + text(" %.15g\n", value);
  }

 private:
  std::string& m_Out;
  std::string m_Name;
};

void addStreams(std::string& out, kv_status_page const& page, char const* name, char const* type, char const* help,
                double (*valueOf)(kv_status_stream const&)) {
  Metric metric(out, name, type, help);
  for (std::size_t const index : streamsOf(page)) {
    metric.add(valueOf(page.streams[index]), "stream=\"" + escaped(page.streams[index].name) + "\"");
  }
}

}  // namespace

std::string tableOf(kv_status_page const& page) {
  kv_status_process const& process = page.process;
  std::string out = text("process %u, version %s, ", process.pid, process.library);
  if (!isRunning(page)) {
    out += "ended; last sign of life " + timeText(process.alive);
  } else if (process.port == 0) {
    out += "not serving";
  } else {
    out += text("port %u, up %.0f s", process.port, secondsSince(process.start));
  }
  out += text("\n%u connections (at most %u), %u sessions (%u), refused: %llu limit, %llu address, %llu user\n",
              process.connections, process.connections_most, process.sessions, process.sessions_most,
              static_cast<unsigned long long>(process.refused_limit),
              static_cast<unsigned long long>(process.refused_address),
              static_cast<unsigned long long>(process.refused_user));
  for (std::size_t const index : streamsOf(page)) {
    kv_status_stream const& stream = page.streams[index];
    auto const viewers = viewersOf(page, index);
    double const each =
        stream.encoded > 0 ? static_cast<double>(stream.encoding) / static_cast<double>(stream.encoded) : 0;
    out += text("\n%s  %s %dx%d  %zu viewer%s  offered %llu, encoded %llu (%.2f ms, %.1f kB each), ",
                printable(stream.name).c_str(), codecOf(stream), stream.width, stream.height, viewers.size(),
                viewers.size() == 1 ? "" : "s", static_cast<unsigned long long>(stream.offered),
                static_cast<unsigned long long>(stream.encoded), each / 1e3,
                stream.encoded > 0 ? static_cast<double>(stream.bytes) / static_cast<double>(stream.encoded) / 1e3 : 0);
    out += text("unwatched %llu, queue full %llu, skipped %llu, failed %llu, key %llu\n",
                static_cast<unsigned long long>(stream.dropped_unwatched),
                static_cast<unsigned long long>(stream.dropped_full), static_cast<unsigned long long>(stream.skipped),
                static_cast<unsigned long long>(stream.failed), static_cast<unsigned long long>(stream.key_frames));
    for (kv_status_viewer const* viewer : viewers) {
      out += text("  %-28s %s  %-18s %6.0f s  sent %llu, dropped %llu", printable(viewer->address).c_str(),
                  transportOf(*viewer), stateOf(*viewer), secondsSince(viewer->since),
                  static_cast<unsigned long long>(viewer->frames_sent),
                  static_cast<unsigned long long>(viewer->frames_dropped));
      out += viewer->report == 0 ? "\n"
                                 : text(", loss %.1f %%, jitter %.1f ms, round trip %.1f ms\n", viewer->loss / 2.56,
                                        viewer->jitter / 1e3, viewer->round_trip / 1e3);
    }
  }
  if (process.last_error.time != 0) {
    out += text("\nlast error: %s %s: result %d, %s\n", timeText(process.last_error.time).c_str(),
                commandOf(process.last_error.command), process.last_error.result,
                printable(process.last_error.text).c_str());
  }
  return out;
}

std::string jsonOf(kv_status_page const& page) {
  kv_status_process const& process = page.process;
  Json streams = Json::array();
  for (std::size_t const index : streamsOf(page)) {
    streams.push_back(jsonOf(page, index));
  }
  Json events = Json::array();
  for (kv_status_event const* event : eventsOf(page, 0)) {
    events.push_back(jsonOf(*event));
  }
  Json error = nullptr;
  if (process.last_error.time != 0) {
    error = {{"command", commandOf(process.last_error.command)},
             {"result", process.last_error.result},
             {"text", process.last_error.text},
             {"time", static_cast<double>(process.last_error.time) / 1e6}};
  }
  Json const whole = {
      {"pid", process.pid},
      {"running", isRunning(page)},
      {"port", process.port},
      {"version", process.library},
      {"start", static_cast<double>(process.start) / 1e6},
      {"alive", static_cast<double>(process.alive) / 1e6},
      {"connections", process.connections},
      {"connections_most", process.connections_most},
      {"sessions", process.sessions},
      {"sessions_most", process.sessions_most},
      {"refused",
       {{"limit", process.refused_limit}, {"address", process.refused_address}, {"user", process.refused_user}}},
      {"streams", streams},
      {"last_error", error},
      {"events", events}};
  return whole.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string metricsOf(kv_status_page const& page) {
  kv_status_process const& process = page.process;
  auto const number = [](std::uint64_t value) { return static_cast<double>(value); };
  std::string out;
  Metric(out, "kavo_up", "gauge", "Whether the process runs and serves.").add(isRunning(page) && process.port != 0);
  Metric(out, "kavo_start_time_seconds", "gauge", "When the server was first started.")
      .add(number(process.start) / 1e6);
  Metric(out, "kavo_alive_time_seconds", "gauge", "When the event loop last ran.").add(number(process.alive) / 1e6);
  Metric(out, "kavo_connections", "gauge", "RTSP connections.").add(process.connections);
  Metric(out, "kavo_sessions", "gauge", "RTSP sessions of clients.").add(process.sessions);
  {
    Metric refused(out, "kavo_refused_total", "counter", "Connections and requests refused.");
    refused.add(number(process.refused_limit), "reason=\"limit\"");
    refused.add(number(process.refused_address), "reason=\"address\"");
    refused.add(number(process.refused_user), "reason=\"user\"");
  }
  using Stream = kv_status_stream;
  struct Row {
    char const* name;
    char const* help;
    double (*valueOf)(Stream const&);
  };
  static constexpr Row rows[] = {
      {"kavo_frames_offered_total", "Frames that the host submitted.",
       [](Stream const& s) { return double(s.offered); }},
      {"kavo_frames_encoded_total", "Frames encoded and queued.", [](Stream const& s) { return double(s.encoded); }},
      {"kavo_frames_unwatched_total", "Frames dropped because nobody watched.",
       [](Stream const& s) { return double(s.dropped_unwatched); }},
      {"kavo_frames_dropped_total", "Frames dropped because the queue was full.",
       [](Stream const& s) { return double(s.dropped_full); }},
      {"kavo_frames_skipped_total", "Frames left out by rate control.",
       [](Stream const& s) { return double(s.skipped); }},
      {"kavo_frames_failed_total", "Frames that the encoder failed on.",
       [](Stream const& s) { return double(s.failed); }},
      {"kavo_key_frames_total", "Key frames of an H.264 stream.", [](Stream const& s) { return double(s.key_frames); }},
      {"kavo_encoded_bytes_total", "Bytes of encoded frames.", [](Stream const& s) { return double(s.bytes); }},
      {"kavo_encoding_seconds_total", "Time spent encoding.", [](Stream const& s) { return double(s.encoding) / 1e6; }},
      {"kavo_frames_sent_total", "Frames that left for at least one viewer.",
       [](Stream const& s) { return double(s.sent); }},
  };
  for (auto const& [name, help, valueOf] : rows) {
    addStreams(out, page, name, "counter", help, valueOf);
  }
  Metric viewers(out, "kavo_viewers", "gauge", "Viewers of a stream.");
  for (std::size_t const index : streamsOf(page)) {
    auto const all = viewersOf(page, index);
    for (auto const transport : {KV_STATUS_UDP, KV_STATUS_TCP}) {
      auto const count =
          std::count_if(all.begin(), all.end(), [=](auto const* v) { return v->transport == transport; });
      viewers.add(number(static_cast<std::uint64_t>(count)), "stream=\"" + escaped(page.streams[index].name) +
                                                                 "\",transport=\"" +
                                                                 (transport == KV_STATUS_UDP ? "udp" : "tcp") + "\"");
    }
  }
  return out;
}

std::string eventsAfter(kv_status_page const& page, std::uint64_t& number) {
  std::string out;
  for (kv_status_event const* event : eventsOf(page, number)) {
    out += text("%s  %-9s  %-19s  %s\n", timeText(event->time).c_str(), kindOf(*event),
                printable(event->stream).c_str(), printable(event->text).c_str());
    number = event->number;
  }
  return out;
}
