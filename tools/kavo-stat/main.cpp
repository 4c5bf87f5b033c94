// kavo-stat: prints the status of a host.
#include <kavo_stream.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "asking.h"
#include "output.h"

namespace {

struct Options {
  std::string address = "127.0.0.1:9554";
  bool json = false;
  bool events = false;
};

void print(std::string const& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() || std::fflush(stdout) != 0) {
    throw StatusError(std::string("cannot write to standard output: ") + std::strerror(errno));
  }
}

// Until the host ends.
void follow(std::string const& address) {
  std::uint64_t number = 0;
  for (auto status = statusOf(address);; status = statusOf(address)) {
    print(eventsAfter(status, number));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
}

void refresh(std::string const& address) {
  while (true) {
    print("\033[H\033[J" + tableOf(statusOf(address)));  // over what was there
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
}

void show(Options const& options) {
  if (options.events) {
    follow(options.address);
  } else if (options.json) {
    print(ask(options.address, "/status.json"));
  } else if (isatty(STDOUT_FILENO) != 0) {
    refresh(options.address);
  } else {
    print(tableOf(statusOf(options.address)));
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Shows what a host of Kavo Stream is doing: its streams, who watches, what was lost.\n"
      "The host has to be started with KAVO_STREAM_STATUS=ADDRESS in its environment.",
      "kavo-stat");
  app.get_formatter()->column_width(22);
  app.set_help_flag("-h,--help", "show this help and exit");
  app.set_version_flag("--version",
                       "kavo-stat " + std::to_string(KV_VERSION_MAJOR) + "." + std::to_string(KV_VERSION_MINOR) + "." +
                           std::to_string(KV_VERSION_PATCH),
                       "show the version and exit");
  app.add_option("ADDRESS", options.address,
                 "of the host's status server: HOST:PORT (127.0.0.1:9554)\nor a socket's path")
      ->type_name("");
  auto* const json = app.add_flag("--json", options.json, "print the status as JSON");
  app.add_flag("--events", options.events, "print events, one per line, until the host exits")->excludes(json);
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
