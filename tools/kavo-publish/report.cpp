#include "report.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

namespace {

// Keeps the order in which the members are written here.
using Json = nlohmann::ordered_json;

void print(Json const& object) { std::printf("%s\n", object.dump().c_str()); }

char const* countedFrames(long frames) { return frames == 1 ? "frame" : "frames"; }

}  // namespace

Report::Report(bool json) : m_Json(json), m_Terminal(!json && isatty(STDOUT_FILENO) != 0) {}

void Report::introduce(std::deque<Publication> const& publications) {
  for (Publication const& publication : publications) {
    auto const [width, height] = publication.size();
    if (m_Json) {
      print({{"stream", publication.name()},
             {"url", publication.url()},
             {"codec", publication.codec().codec == kavo::Codec::Jpeg ? "jpeg" : "h264"},
             {"width", width},
             {"height", height},
             {"frame_rate", publication.frameRate()},
             {"target_bits_per_second", publication.bitsPerSecond()}});
      continue;
    }
    std::printf("Publishing %s, %dx%d at %g frames a second, as %s of about %.3g Mbit/s:\n\n  %s\n\n",
                publication.source().empty() ? "the test pattern" : publication.source().c_str(), width, height,
                publication.frameRate(), publication.codec().name,
                static_cast<double>(publication.bitsPerSecond()) / 1e6, publication.url().c_str());
  }
  if (!m_Json) {
    Publication const& first = publications.front();
    std::string const url = first.url();
    std::printf("Watch it with one of\n  ffplay -rtsp_transport tcp %s\n  vlc %s\n", url.c_str(), url.c_str());
    std::printf("  gst-launch-1.0 rtspsrc location=%s latency=100 ! %s ! autovideosink\n\nCtrl-C ends.\n", url.c_str(),
                first.codec().gstreamer);
  }
  flush();
}

void Report::status(std::deque<Publication>& publications) {
  if (m_Terminal && m_Printed) {
    std::printf("\033[%zuA", publications.size());  // up, over what was printed last
  }
  for (Publication& publication : publications) {
    line(publication, publication.takeFigures());
  }
  m_Printed = true;
  flush();
}

void Report::line(Publication const& publication, Publication::Figures const& figures) const {
  long const dropped = figures.offered - figures.encoded;
  if (m_Json) {
    print({{"stream", publication.name()},
           {"offered", figures.offered},
           {"encoded", figures.encoded},
           {"dropped", dropped},
           {"milliseconds", figures.millisecondsPerFrame}});
    return;
  }
  std::printf("%s: %ld %s submitted, %ld encoded", publication.name().c_str(), figures.offered,
              countedFrames(figures.offered), figures.encoded);
  bool const watched = figures.millisecondsPerFrame > 0;
  if (watched) {
    std::printf(" (%.2f ms each)", figures.millisecondsPerFrame);
  }
  std::printf(", %ld skipped%s%s\n", dropped, watched ? "" : " because nobody watches", m_Terminal ? "\033[K" : "");
}

// Nobody reads what a full disk swallows: that ends the program, as a closed pipe does.
void Report::flush() {
  if (std::fflush(stdout) != 0) {
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}
