#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string_view>
#include <utility>

#include "formats.h"
#include "operate/policy.h"

namespace {

[[noreturn]] void refuse(std::string const& message) { throw Failure(message + "; see kavo-publish --help", 2); }

template <class Number>
bool parse(std::string_view text, Number& number) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

template <class Number>
Number numberIn(char const* name, std::string const& text, Number lowest, Number highest, char const* range) {
  Number number{};
  if (!parse(std::string_view(text), number) || !(number >= lowest && number <= highest)) {
    refuse(std::string(name) + " takes a number " + range + ", not '" + text + "'");
  }
  return number;
}

Size sizeOf(std::string_view text) {
  Size size{};
  auto const cross = text.find('x');
  if (cross == std::string_view::npos || !parse(text.substr(0, cross), size.width) ||
      !parse(text.substr(cross + 1), size.height) || size.width < 1 || size.height < 1) {
    refuse("--size takes WIDTHxHEIGHT such as 1280x720, not '" + std::string(text) + "'");
  }
  return size;
}

std::int64_t bitrateOf(std::string_view text) {
  std::string_view digits = text;
  double unit = 1;
  if (!digits.empty() && (digits.back() == 'k' || digits.back() == 'M')) {
    unit = digits.back() == 'k' ? 1e3 : 1e6;
    digits.remove_suffix(1);
  }
  double number = 0;
  if (!parse(digits, number) || !(number * unit >= 1 && number * unit <= 2e9)) {
    refuse("--bitrate takes bits per second such as 800k or 1.5M, not '" + std::string(text) + "'");
  }
  return std::llround(number * unit);
}

kavo::Codec codecOf(std::string const& text) {
  if (text != "jpeg" && text != "h264") {
    refuse("--codec takes h264 or jpeg, not '" + text + "'");
  }
  return text == "jpeg" ? kavo::Codec::Jpeg : kavo::Codec::H264;
}

// Names that URLs can carry unchanged.
std::string nameOf(std::string const& text) {
  bool const plain = std::all_of(text.begin(), text.end(), [](char c) {
    return c > ' ' && c < '\x7f' && std::string_view("/?#%\"\\").find(c) == std::string_view::npos;
  });
  if (text.empty() || text.size() > 19 || !plain) {
    refuse("--name takes 1 to 19 ASCII characters without / ? # % \" \\ and spaces, not '" + text + "'");
  }
  return text;
}

std::vector<Options::Input> inputsOf(std::vector<std::string> sources, std::vector<std::string> const& givenNames) {
  if (std::find(sources.begin(), sources.end(), "") != sources.end()) {
    refuse("empty INPUT: expected a file, camera or URL (omit it for the test pattern)");
  }
  if (sources.empty()) {
    sources.emplace_back();
  }
  if (!givenNames.empty() && givenNames.size() != sources.size()) {
    refuse("--name once for each input: inputs: " + std::to_string(sources.size()) +
           ", names: " + std::to_string(givenNames.size()));
  }
  std::vector<Options::Input> inputs;
  for (std::size_t i = 0; i < sources.size(); ++i) {
    std::string const name =
        givenNames.empty() ? "kavo" + (sources.size() > 1 ? std::to_string(i + 1) : "") : nameOf(givenNames[i]);
    if (std::any_of(inputs.begin(), inputs.end(), [&](auto const& other) { return other.name == name; })) {
      refuse("two inputs have the name '" + name + "': give each its own --name");
    }
    inputs.push_back({sources[i], name});
  }
  return inputs;
}

void checkPolicy(std::string const& file) {
  try {
    kavo::impl::readPolicy(file);
    std::printf("%s: no errors\n", file.c_str());
  } catch (kavo::impl::PolicyError const& error) {
    throw Failure(error.what());
  }
}

template <class Take>
void option(CLI::App& app, char const* name, char const* value, char const* description, Take take) {
  app.add_option_function<std::string>(name, std::move(take), description)->type_name(value)->take_last();
}

std::string version() {
  return "kavo-publish " + std::to_string(KV_VERSION_MAJOR) + "." + std::to_string(KV_VERSION_MINOR) + "." +
         std::to_string(KV_VERSION_PATCH);
}

}  // namespace

std::optional<Options> readOptions(int argc, char** argv) {
  Options options;
  std::vector<std::string> sources;
  std::vector<std::string> names;
  std::optional<std::string> policyFile;
  bool listFormats = false;

  CLI::App app(
      "Publishes live video over RTSP, a stream for each INPUT.\n"
      "Without an input it is a test pattern with a running clock.",
      "kavo-publish");
  app.get_formatter()->column_width(26);
  app.set_help_flag("-h,--help", "show this help and exit");
  app.set_version_flag("--version", version(), "show the version and exit");
  app.add_option("INPUT", sources,
                 "a video file, a URL, a camera such as /dev/video0,\nor camera:NAME for the one with NAME in its name")
      ->type_name("");
  option(app, "--codec", "CODEC", "h264 or jpeg (h264 where OpenH264 is installed)",
         [&](auto const& text) { options.codec = codecOf(text); });
  option(app, "--size", "WIDTHxHEIGHT", "published frame size (default: the input's)",
         [&](auto const& text) { options.size = sizeOf(text); });
  option(app, "--fps", "N", "frame rate of the test pattern and of inputs\nwithout one (default 25)",
         [&](auto const& text) { options.frameRate = numberIn("--fps", text, 1, 240, "from 1 to 240"); });
  option(app, "--bitrate", "N", "bits per second of a stream, also as 800k or 1.5M",
         [&](auto const& text) { options.bitsPerSecond = bitrateOf(text); });
  option(app, "--port", "N", "TCP port of the RTSP server (8554)", [&](auto const& text) {
    options.port = numberIn<std::uint16_t>("--port", text, 1, 65535, "from 1 to 65535");
  });
  app.add_option(
         "--name", names,
         "last part of the URL, 1 to 19 characters; once for each\ninput (kavo, or kavo1, kavo2, ... for several)")
      ->type_name("NAME")
      ->type_size(1)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
  app.add_flag("--copy", options.copy, "publish H.264, H.265 or MJPEG as it is, without decoding and\nencoding it");
  app.add_flag("--loop", options.loop, "start a file again at its end");
  app.add_flag("--reconnect", options.reconnect, "open a camera or URL again when it is lost");
  option(app, "--duration", "SECONDS", "exit after this time", [&](auto const& text) {
    options.seconds = numberIn("--duration", text, 0.1, 1e9, "of seconds, 0.1 or more");
  });
  app.add_flag("--json", options.json, "print everything as JSON, an object a line");
  app.add_option("--check-config", policyFile, "validate a policy file and exit")->type_name("FILE");
  app.add_flag("--list-formats", listFormats, "list codecs, sizes, pixel formats and cameras, and exit");
  try {
    app.parse(argc, argv);
  } catch (CLI::Success const& asked) {  // help or version
    app.exit(asked);
    return std::nullopt;
  } catch (CLI::ParseError const& error) {
    refuse(error.what());
  }
  if (policyFile) {
    checkPolicy(*policyFile);
    return std::nullopt;
  }
  if (listFormats) {
    printFormats();
    return std::nullopt;
  }
  if (options.copy && sources.empty()) {
    refuse("--copy is for files, cameras and URLs: the test pattern is not encoded");
  }
  if (options.copy && (options.codec || options.size || options.bitsPerSecond)) {
    refuse("--copy changes nothing: it goes without --codec, --size and --bitrate");
  }
  if (options.loop && sources.empty()) {
    refuse("--loop is for files: the test pattern never ends");
  }
  options.inputs = inputsOf(sources, names);
  return options;
}
