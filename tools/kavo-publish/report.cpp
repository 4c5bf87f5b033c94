#include "report.h"

#include <unistd.h>

#include <cstdio>

Report::Report(bool json) : m_Json(json), m_Terminal(!json && isatty(STDOUT_FILENO) != 0) {}

void Report::introduce(std::deque<Channel> const& channels) {
  for (Channel const& channel : channels) {
    auto const [width, height] = channel.size();
    if (m_Json) {
      std::printf(
          "{\"stream\": \"%s\", \"url\": \"%s\", \"codec\": \"%s\", \"width\": %d, \"height\": %d, "
          "\"frame_rate\": %d, \"target_bits_per_second\": %lld}\n",
          channel.name().c_str(), channel.url().c_str(), channel.codec().codec == kavo::Codec::Jpeg ? "jpeg" : "h264",
          width, height, channel.frameRate(), static_cast<long long>(channel.bitsPerSecond()));
      continue;
    }
    std::printf("Publishing %s, %dx%d at %d frames a second, as %s of about %.1f Mbit/s:\n\n  %s\n\n",
                channel.source().empty() ? "the test pattern" : channel.source().c_str(), width, height,
                channel.frameRate(), channel.codec().name, static_cast<double>(channel.bitsPerSecond()) / 1e6,
                channel.url().c_str());
  }
  if (!m_Json) {
    Channel const& first = channels.front();
    std::string const url = first.url();
    std::printf("Watch it with one of\n  ffplay -rtsp_transport tcp %s\n  vlc %s\n", url.c_str(), url.c_str());
    std::printf("  gst-launch-1.0 rtspsrc location=%s latency=100 ! %s ! autovideosink\n\nCtrl-C ends.\n", url.c_str(),
                first.codec().gstreamer);
  }
  std::fflush(stdout);
}

void Report::status(std::deque<Channel>& channels) {
  if (m_Terminal && m_Printed) {
    std::printf("\033[%zuA", channels.size());  // up, over what was printed last
  }
  for (Channel& channel : channels) {
    line(channel, channel.takeFigures());
  }
  m_Printed = true;
  std::fflush(stdout);
}

void Report::line(Channel const& channel, Channel::Figures const& figures) const {
  long const dropped = figures.offered - figures.encoded;
  if (m_Json) {
    std::printf("{\"stream\": \"%s\", \"offered\": %ld, \"encoded\": %ld, \"dropped\": %ld, \"milliseconds\": %.3f}\n",
                channel.name().c_str(), figures.offered, figures.encoded, dropped, figures.millisecondsPerFrame);
    return;
  }
  std::printf("%s: %ld frames submitted, %ld encoded, %ld dropped, %.2f ms a frame, %s%s\n", channel.name().c_str(),
              figures.offered, figures.encoded, dropped, figures.millisecondsPerFrame,
              figures.millisecondsPerFrame > 0 ? "watched" : "nobody watches", m_Terminal ? "\033[K" : "");
}
