// kavo-stat: what a host's library is doing, from its status page.
#include <kavo_stream.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "output.h"
#include "status/statusreader.h"

namespace {

struct Options {
  std::string source;
  bool json = false;
  bool prometheus = false;
  bool events = false;
};

std::string fileOf(std::string const& source) {
  bool const isNumber =
      !source.empty() && std::all_of(source.begin(), source.end(), [](char c) { return c >= '0' && c <= '9'; });
  return isNumber && access(source.c_str(), F_OK) != 0 ? statusFileOf(std::atoi(source.c_str())) : source;
}

void print(std::string const& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw StatusError(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

void pause() { std::this_thread::sleep_for(std::chrono::seconds(1)); }

// Until the process ends.
void follow(std::string const& file) {
  std::uint64_t number = 0;
  while (true) {
    auto const page = readStatus(file);
    print(eventsAfter(*page, number));
    if (!isRunning(*page)) {
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

void refresh(std::string const& file) {
  while (true) {
    auto const page = readStatus(file);
    print("\033[H\033[J" + tableOf(*page));  // over what was there
    if (!isRunning(*page)) {
      return;
    }
    pause();
  }
}

void show(Options const& options) {
  std::string const file = fileOf(options.source);
  if (options.events) {
    follow(file);
  } else if (options.json) {
    print(jsonOf(*readStatus(file)));
  } else if (options.prometheus) {
    print(metricsOf(*readStatus(file)));
  } else if (isatty(STDOUT_FILENO) != 0) {
    refresh(file);
  } else {
    print(tableOf(*readStatus(file)));
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Shows what a host of Kavo Stream is doing: its streams, who watches, what was lost.\n"
      "The host has to be started with KAVO_STREAM_STATUS=FILE in its environment.",
      "kavo-stat");
  app.get_formatter()->column_width(22);
  app.set_help_flag("-h,--help", "print this and end");
  app.set_version_flag("--version",
                       "kavo-stat " + std::to_string(KV_VERSION_MAJOR) + "." + std::to_string(KV_VERSION_MINOR) + "." +
                           std::to_string(KV_VERSION_PATCH),
                       "print the version and end");
  app.add_option("SOURCE", options.source, "the status page's file, or the host's process id")
      ->required()
      ->type_name("");
  auto* const json = app.add_flag("--json", options.json, "print one JSON object");
  auto* const metrics = app.add_flag("--prometheus", options.prometheus, "print metrics in Prometheus' text format");
  auto* const events = app.add_flag("--events", options.events, "print what happens, a line each, until the host ends");
  json->excludes(metrics)->excludes(events);
  metrics->excludes(events);
  try {
    app.parse(argc, argv);
    show(options);
    return EXIT_SUCCESS;
  } catch (CLI::Success const& asked) {  // help or version
    return app.exit(asked);
  } catch (CLI::ParseError const& error) {
    std::fprintf(stderr, "kavo-stat: %s; see kavo-stat --help\n", error.what());
    return 2;
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "kavo-stat: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
