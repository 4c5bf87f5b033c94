#include "output.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace {

using Json = nlohmann::ordered_json;

std::string timeText(double time) {
  auto const seconds = static_cast<std::time_t>(time);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  char text[40] = {};
  std::size_t const size = std::strftime(text, sizeof text, "%F %T", &parts);
  std::snprintf(text + size, sizeof text - size, ".%03d",
                static_cast<int>((time - static_cast<double>(seconds)) * 1000));
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

// Texts come from hosts and networks.
std::string printable(Json const& from) {
  std::string result = from.get<std::string>();
  std::replace_if(result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return result;
}

std::string numberIn(Json const& from, char const* name) { return from.at(name).dump(); }

double since(Json const& status, double time) { return status.at("time").get<double>() - time; }

std::string lineOf(Json const& status, Json const& viewer) {
  std::string line = text("  %-28s %s  %-18s %6.0f s  sent %s, dropped %s", printable(viewer.at("address")).c_str(),
                          printable(viewer.at("transport")).c_str(), printable(viewer.at("state")).c_str(),
                          since(status, viewer.at("since")), numberIn(viewer, "frames_sent").c_str(),
                          numberIn(viewer, "frames_dropped").c_str());
  if (!viewer.at("round_trip_ms").is_null()) {
    line += text(", loss %.1f %%, jitter %.1f ms, round trip %.1f ms", 100 * viewer.at("loss").get<double>(),
                 viewer.at("jitter_ms").get<double>(), viewer.at("round_trip_ms").get<double>());
  }
  return line + (viewer.at("user").empty() || viewer.at("user") == "" ? "" : ", " + printable(viewer.at("user"))) +
         "\n";
}

}  // namespace

std::string tableOf(Json const& status) {
  std::string out = "process " + numberIn(status, "pid") + ", version " + printable(status.at("version")) + ", port " +
                    numberIn(status, "port") + text(", up %.0f s\n", since(status, status.at("started")));
  Json const& refused = status.at("refused");
  out += numberIn(status, "connections") + " connections, " + numberIn(status, "sessions") +
         " sessions; refused: " + numberIn(refused, "limit") + " limit, " + numberIn(refused, "address") +
         " address, " + numberIn(refused, "user") + " user\n";
  for (Json const& stream : status.at("streams")) {
    std::size_t const viewers = stream.at("viewers").size();
    out += "\n" + printable(stream.at("name")) + "  " + printable(stream.at("codec")) + " " +
           numberIn(stream, "width") + "x" + numberIn(stream, "height") + "  " + std::to_string(viewers) +
           (viewers == 1 ? " viewer" : " viewers") + "  offered " + numberIn(stream, "offered") + ", encoded " +
           numberIn(stream, "encoded") + ", unwatched " + numberIn(stream, "unwatched") + ", queue full " +
           numberIn(stream, "queue_full") + ", skipped " + numberIn(stream, "skipped") + ", failed " +
           numberIn(stream, "failed") + ", sent " + numberIn(stream, "sent_frames") + "\n";
    for (Json const& viewer : stream.at("viewers")) {
      out += lineOf(status, viewer);
    }
  }
  if (Json const& error = status.at("last_error"); error.at("time") > 0) {
    out += "\nlast error: " + timeText(error.at("time")) + " " + printable(error.at("text")) + "\n";
  }
  return out;
}

std::string eventsAfter(Json const& status, std::uint64_t& number) {
  std::string out;
  for (Json const& event : status.at("events")) {
    if (event.at("number") > number) {
      std::string what = printable(event.at("address"));
      what += what.empty() || event.at("text") == "" ? "" : ": ";
      out += text("%s  %-9s  %-19s  ", timeText(event.at("time")).c_str(), printable(event.at("kind")).c_str(),
                  printable(event.at("stream")).c_str()) +
             what + printable(event.at("text")) + "\n";
      number = event.at("number");
    }
  }
  return out;
}
