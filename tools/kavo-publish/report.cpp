#include "report.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace {

// Keeps the members in the order in which they are written here.
using Json = nlohmann::ordered_json;

void print(Json const& object) { std::printf("%s\n", object.dump().c_str()); }

}  // namespace

Report::Report(bool json) : m_Json(json), m_Terminal(!json && isatty(STDOUT_FILENO) != 0) {}

void Report::introduce(std::deque<Publication> const& publications) {
  for (Publication const& publication : publications) {
    auto const [width, height] = publication.size();
    if (m_Json) {
      print({{"stream", publication.name()},
             {"url", publication.url()},
             {"codec", publication.codec().shortName},
             {"width", width},
             {"height", height},
             {"frame_rate", publication.frameRate()},
             {"target_bits_per_second", publication.bitsPerSecond()}});
      continue;
    }
    std::printf("Publishing %s, %dx%d at %g frames a second, as %s",
                publication.source().empty() ? "the test pattern" : publication.source().c_str(), width, height,
                publication.frameRate(), publication.codec().name);
    if (publication.bitsPerSecond() > 0) {
      std::printf(" of about %.3g Mbit/s", static_cast<double>(publication.bitsPerSecond()) / 1e6);
    }
    std::printf(":\n\n  %s\n\n", publication.url().c_str());
  }
  if (!m_Json) {
    Publication const& first = publications.front();
    std::string const url = first.url();
    std::printf("Watch it with one of\n  ffplay -rtsp_transport tcp %s\n  mpv %s\n", url.c_str(), url.c_str());
    std::printf("  gst-launch-1.0 rtspsrc location=%s latency=100 ! %s ! autovideosink\n\nCtrl-C ends.\n", url.c_str(),
                first.codec().gstreamer);
  }
  flush();
}

void Report::status(std::deque<Publication> const& publications) {
  if (m_Terminal && m_Printed) {
    std::printf("\033[%zuA", publications.size());  // up, over what was printed last
  }
  for (Publication const& publication : publications) {
    line(publication.name(), publication.status());
  }
  m_Printed = true;
  flush();
}

void Report::line(std::string const& name, kavo::StreamStatus const& status) const {
  if (m_Json) {
    print({{"stream", name},
           {"viewers", status.viewers},
           {"offered", status.offered},
           {"encoded", status.encoded},
           {"unwatched", status.unwatched},
           {"sent_frames", status.sentFrames},
           {"sent_bytes", status.sentBytes}});
    return;
  }
  auto const count = [](std::uint64_t number, char const* noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
  };
  std::printf("%s: %s; %s submitted, %llu encoded, %llu not watched%s\n", name.c_str(),
              count(status.viewers, "viewer").c_str(), count(status.offered, "frame").c_str(),
              static_cast<unsigned long long>(status.encoded), static_cast<unsigned long long>(status.unwatched),
              m_Terminal ? "\033[K" : "");
}

// Output lost to a full disk ends the program, as a closed pipe does.
void Report::flush() {
  if (std::fflush(stdout) != 0) {
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}
