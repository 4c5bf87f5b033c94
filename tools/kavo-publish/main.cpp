// kavo-publish: publishes video files, cameras, URLs or a test pattern.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <thread>

#include "options.h"
#include "publication.h"
#include "report.h"

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> g_Stop = false;

void onSignal(int) { g_Stop = true; }

kavo::Server serve(Options const& options) {
  try {
    return kavo::Server(options.port);
  } catch (kavo::Error const& error) {
    // With a policy file the library has printed the reason.
    char const* const policy = std::getenv("KAVO_STREAM_CONFIG");
    bool const isSaid = policy != nullptr && *policy != '\0';
    throw Failure("cannot serve on port " + std::to_string(options.port) + " (result " +
                  std::to_string(error.result()) + ")" +
                  (isSaid ? ": see the reason above" : ": it is taken or not allowed, choose another with --port"));
  }
}

// Stops the publications' threads before they are destroyed, whatever happens.
struct StopAtEnd {
  ~StopAtEnd() { g_Stop = true; }
};

bool anyRunning(std::deque<Publication> const& publications) {
  return std::any_of(publications.begin(), publications.end(),
                     [](Publication const& publication) { return publication.isRunning(); });
}

void publish(Options const& options) {
  kavo::Server server = serve(options);
  std::deque<Publication> publications;
  StopAtEnd const stopAtEnd;
  for (auto const& input : options.inputs) {
    publications.emplace_back(server, options, input, g_Stop, [](std::string const& remark) {
      std::fprintf(stderr, "kavo-publish: %s\n", remark.c_str());
    });
  }
  Report report(options.json);
  report.introduce(publications);
  for (Publication& publication : publications) {
    publication.start();
  }

  auto const interval = std::chrono::seconds(options.json || isatty(STDOUT_FILENO) != 0 ? 1 : 5);
  auto const begin = Clock::now();
  for (auto due = begin + interval; !g_Stop && anyRunning(publications);) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (options.seconds && std::chrono::duration<double>(Clock::now() - begin).count() > *options.seconds) {
      g_Stop = true;
    } else if (Clock::now() >= due) {
      due += interval;
      report.status(publications);
    }
  }
  while (anyRunning(publications)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  report.status(publications);
  for (Publication const& publication : publications) {
    publication.rethrow();
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  std::signal(SIGPIPE, SIG_IGN);  // output that nobody reads is an error of its own
  try {
    if (auto const options = readOptions(argc, argv)) {
      publish(*options);
    }
    return EXIT_SUCCESS;
  } catch (Failure const& failure) {
    std::fprintf(stderr, "kavo-publish: %s\n", failure.what());
    return failure.exitCode;
  } catch (std::exception const& failure) {
    std::fprintf(stderr, "kavo-publish: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
