#include "options.h"

#include <getopt.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>
#include <utility>

#include "formats.h"

namespace {

constexpr char help[] =
    R"(usage: kavo-publish [OPTION...] [INPUT...]

Publishes live video over RTSP, a stream for each INPUT: a video file, a URL, a
camera such as /dev/video0, or camera:NAME for the one with NAME in its name.
Without an input it is a test pattern with a running clock.

  --codec h264|jpeg    what to publish (default: h264 where OpenH264 is installed)
  --size WIDTHxHEIGHT  of the published frame (default: the input's)
  --fps N              frames per second of the test pattern (default: 25)
  --bitrate N          bits per second of a stream, also as 800k or 4M
  --port N             TCP port of the RTSP server (default: 8554)
  --name NAME          last part of the URL, 1 to 19 characters; once for each
                       input (default: kavo, or kavo1, kavo2, ... for several)
  --loop               start a file again at its end
  --duration SECONDS   end after this time
  --json               print everything as JSON, an object a line
  --list-formats       print codecs, sizes, pixel formats and cameras, and end
  --help               print this and end
)";

[[noreturn]] void refuse(std::string const& message) { throw Failure(message + "; see kavo-publish --help", 2); }

template <class Number>
bool parse(std::string_view text, Number& number) {
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

template <class Number>
Number numberIn(char const* option, std::string_view text, Number lowest, Number highest) {
  Number number{};
  if (!parse(text, number) || number < lowest || number > highest) {
    refuse(std::string(option) + " takes a number from " + std::to_string(lowest) + " to " + std::to_string(highest) +
           ", not '" + std::string(text) + "'");
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
  std::int64_t unit = 1;
  if (!digits.empty() && (digits.back() == 'k' || digits.back() == 'M')) {
    unit = digits.back() == 'k' ? 1000 : 1000000;
    digits.remove_suffix(1);
  }
  std::int64_t number = 0;
  if (!parse(digits, number) || number < 1 || number > 2000000000 / unit) {
    refuse("--bitrate takes bits per second such as 800k or 4M, not '" + std::string(text) + "'");
  }
  return number * unit;
}

kavo::Codec codecOf(std::string_view text) {
  if (text != "jpeg" && text != "h264") {
    refuse("--codec takes h264 or jpeg, not '" + std::string(text) + "'");
  }
  return text == "jpeg" ? kavo::Codec::Jpeg : kavo::Codec::H264;
}

// Names that stand in URLs, and in JSON as they are.
std::string nameOf(std::string_view text) {
  bool const plain = text.find_first_of("/ ?#\"\\") == std::string_view::npos &&
                     std::none_of(text.begin(), text.end(), [](unsigned char c) { return c < ' '; });
  if (text.empty() || text.size() > 19 || !plain) {
    refuse("--name takes 1 to 19 characters without / ? # \" \\ and spaces, not '" + std::string(text) + "'");
  }
  return std::string(text);
}

std::vector<Options::Input> inputsOf(std::vector<std::string> sources, std::vector<std::string> names) {
  if (sources.empty()) {
    sources.emplace_back();
  }
  if (names.empty()) {
    for (std::size_t i = 1; i <= sources.size(); ++i) {
      names.push_back("kavo" + (sources.size() > 1 ? std::to_string(i) : ""));
    }
  }
  if (names.size() != sources.size()) {
    refuse("--name once for each input: there are " + std::to_string(sources.size()) + " inputs and " +
           std::to_string(names.size()) + " names");
  }
  std::vector<Options::Input> inputs;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (std::count(names.begin(), names.end(), names[i]) > 1) {
      refuse("two inputs have the name '" + names[i] + "': give each its own --name");
    }
    inputs.push_back({std::move(sources[i]), names[i]});
  }
  return inputs;
}

}  // namespace

std::optional<Options> readOptions(int argc, char** argv) {
  enum : int { Codec = 256, SizeOption, Fps, Bitrate, Port, Name, Loop, Duration, Json, ListFormats, Help };
  static option const known[] = {
      {"codec", required_argument, nullptr, Codec},
      {"size", required_argument, nullptr, SizeOption},
      {"fps", required_argument, nullptr, Fps},
      {"bitrate", required_argument, nullptr, Bitrate},
      {"port", required_argument, nullptr, Port},
      {"name", required_argument, nullptr, Name},
      {"loop", no_argument, nullptr, Loop},
      {"json", no_argument, nullptr, Json},
      {"list-formats", no_argument, nullptr, ListFormats},
      {"help", no_argument, nullptr, Help},
      {"duration", required_argument, nullptr, Duration},
      {nullptr, 0, nullptr, 0},
  };
  Options options;
  std::vector<std::string> names;
  opterr = 0;
  for (int found; (found = getopt_long(argc, argv, ":", known, nullptr)) != -1;) {
    switch (found) {
      case Codec:
        options.codec = codecOf(optarg);
        break;
      case SizeOption:
        options.size = sizeOf(optarg);
        break;
      case Fps:
        options.frameRate = numberIn("--fps", optarg, 1, 240);
        break;
      case Bitrate:
        options.bitsPerSecond = bitrateOf(optarg);
        break;
      case Port:
        options.port = numberIn<std::uint16_t>("--port", optarg, 1, 65535);
        break;
      case Name:
        names.push_back(nameOf(optarg));
        break;
      case Loop:
        options.loop = true;
        break;
      case Duration:
        options.seconds = numberIn("--duration", optarg, 0.1, 1e9);
        break;
      case Json:
        options.json = true;
        break;
      case ListFormats:
        printFormats();
        return std::nullopt;
      case Help:
        std::fputs(help, stdout);
        return std::nullopt;
      case ':':
        refuse(std::string(argv[optind - 1]) + " needs a value");
      default:
        refuse("unknown option " + std::string(argv[optind - 1]));
    }
  }
  options.inputs = inputsOf({argv + optind, argv + argc}, std::move(names));
  return options;
}
