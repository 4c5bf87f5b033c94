#include "report.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

namespace {

// Keeps the order in which the members are written here.
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

void Report::status(std::deque<Publication> const& publications, kv_status_page const* page) {
  if (page == nullptr) {
    return;
  }
  if (m_Terminal && m_Printed) {
    std::printf("\033[%zuA", publications.size());  // up, over what was printed last
  }
  for (Publication const& publication : publications) {
    line(publication.name(), figuresOf(publication.name(), *page));
  }
  m_Printed = true;
  flush();
}

Report::Figures Report::figuresOf(std::string const& name, kv_status_page const& page) {
  Figures figures;
  for (unsigned index = 0; index < KV_STATUS_STREAMS; ++index) {
    if (page.streams[index].codec == 0 || name != page.streams[index].name) {
      continue;
    }
    figures.stream = page.streams[index];
    for (kv_status_viewer const& viewer : page.viewers) {
      bool const watches = viewer.state == KV_STATUS_AWAITING_KEY || viewer.state == KV_STATUS_PLAYING;
      if (watches && viewer.stream == index) {
        ++figures.viewers;
        figures.loss = std::max(figures.loss, viewer.loss / 256.0);
      }
    }
  }
  kv_status_stream const before = std::exchange(m_Before[name], figures.stream);
  if (figures.stream.encoded > before.encoded) {
    figures.milliseconds = static_cast<double>(figures.stream.encoding - before.encoding) / 1e3 /
                           static_cast<double>(figures.stream.encoded - before.encoded);
  }
  return figures;
}

void Report::line(std::string const& name, Figures const& figures) const {
  kv_status_stream const& stream = figures.stream;
  std::uint64_t const dropped = stream.dropped_unwatched + stream.dropped_full;
  if (m_Json) {
    print({{"stream", name},
           {"viewers", figures.viewers},
           {"offered", stream.offered},
           {"encoded", stream.encoded},
           {"dropped", dropped},
           {"skipped", stream.skipped},
           {"loss", figures.loss},
           {"milliseconds", figures.milliseconds}});
    return;
  }
  auto const number = [](std::uint64_t count) { return static_cast<unsigned long long>(count); };
  std::printf("%s: %u %s; %llu frames submitted, %llu encoded", name.c_str(), figures.viewers,
              figures.viewers == 1 ? "viewer" : "viewers", number(stream.offered), number(stream.encoded));
  if (figures.milliseconds > 0) {
    std::printf(" (%.2f ms each)", figures.milliseconds);
  }
  std::printf(", %llu not watched", number(dropped));
  if (stream.skipped > 0) {
    std::printf(", %llu skipped by rate control", number(stream.skipped));
  }
  if (figures.loss > 0) {
    std::printf(", %.1f %% of packets lost", figures.loss * 100);
  }
  std::printf("%s\n", m_Terminal ? "\033[K" : "");
}

// Nobody reads what a full disk swallows: that ends the program, as a closed pipe does.
void Report::flush() {
  if (std::fflush(stdout) != 0) {
    throw Failure(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}
