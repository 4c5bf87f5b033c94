#include "fuzz/rtspscript.h"

#include <algorithm>
#include <numeric>
#include <sstream>
#include <string_view>
#include <utility>

namespace {

constexpr std::size_t mostSteps = 24;
constexpr unsigned connections = 4;
// How often each kind is chosen: messages of clients matter most.
constexpr std::string_view weightedKinds = "ssssssssdddgccfrrhhhhmpetx";

constexpr char const* messages[] = {
    "OPTIONS {U} RTSP/1.0\r\nCSeq: 1\r\n\r\n",
    "DESCRIBE {U} RTSP/1.0\r\nCSeq: 2\r\nAccept: application/sdp\r\n\r\n",
    "SETUP {U}/track1 RTSP/1.0\r\nCSeq: 3\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n",
    "SETUP {U}/track1 RTSP/1.0\r\nCSeq: 3\r\nTransport: RTP/AVP;unicast;client_port={P}\r\n\r\n",
    "SETUP {V}/track1 RTSP/1.0\r\nCSeq: 3\r\nSession: {S}\r\nTransport: RTP/AVP/TCP;unicast;interleaved=2-3\r\n\r\n",
    "SETUP {W}/track1 RTSP/1.0\r\nCSeq: 3\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n\r\n",
    "SETUP {W}/track1 RTSP/1.0\r\nCSeq: 3\r\nTransport: RTP/AVP;unicast;client_port={P}\r\n\r\n",
    "PLAY {W} RTSP/1.0\r\nCSeq: 4\r\nSession: {S}\r\n\r\n",
    "PLAY {U} RTSP/1.0\r\nCSeq: 4\r\nSession: {S}\r\nRange: npt=0.000-\r\n\r\n",
    "PAUSE {U} RTSP/1.0\r\nCSeq: 5\r\nSession: {S}\r\n\r\n",
    "GET_PARAMETER {U} RTSP/1.0\r\nCSeq: 6\r\nSession: {S}\r\n\r\n",
    "SET_PARAMETER {U} RTSP/1.0\r\nCSeq: 6\r\nSession: {S}\r\nContent-Length: 5\r\n\r\nabcd\n",
    "TEARDOWN {U} RTSP/1.0\r\nCSeq: 7\r\nSession: {S}\r\n\r\n",
};

constexpr char const* headerLines[] = {
    "Session: {S}",
    "Session: {O}",
    "Session: 00000000",
    "CSeq: 99999999999",
    "Content-Length: 10",
    "Content-Length: -1",
    "Content-Length: 4294967297",
    "Transport: RTP/AVP;unicast;client_port={P},RTP/AVP/TCP;interleaved=0-1",
    "Transport: RTP/AVP/TCP;interleaved=254-255",
    "Transport: RTP/AVP;multicast;destination=239.1.1.1;port=4000-4001",
    "Transport: RTP/AVP;unicast;destination=127.0.0.2;client_port=1-65535",
    "Require: implicit-play",
    "Range: npt=now-",
    "Scale: -1e308",
    "Accept: application/sdp",
    "x-sessioncookie: a",
    "Authorization: Digest username=\"a\", realm=\"b\", nonce=\"c\", uri=\"d\", response=\"e\"",
};

constexpr char const* statusRequests[] = {
    "GET /status.json HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n",
    "HEAD / HTTP/1.1\r\nHost: [::1]:9554\r\n\r\n",
    "POST / HTTP/1.1\r\nHost: example.com\r\n\r\n",
};

// Receiver reports (one without a block, one that reports loss), BYE, picture loss indication, full intra
// request. {RR} stands for the SSRC of the viewer's stream, {LR} for the time of its last sender report.
std::string const sender = {0, 0, 0, 9};
std::string const reports[] = {
    std::string("\x80\xc9\x00\x01", 4) + sender,
    std::string("\x81\xc9\x00\x07", 4) + sender + "{RR}" +
        std::string("\x30\x00\x00\x05\x00\x01\x10\x00\x00\x00\x01\x00", 12) + "{LR}" +
        std::string("\x00\x00\x40\x00", 4),
    std::string("\x80\xc9\x00\x01", 4) + sender + std::string("\x81\xcb\x00\x01", 4) + sender,
    std::string("\x81\xce\x00\x02", 4) + sender + "{RR}",
    std::string("\x84\xce\x00\x04", 4) + sender + std::string(4, 0) + "{RR}" + std::string("\x01\x00\x00\x00", 4),
};

std::size_t below(std::mt19937& random, std::size_t limit) { return limit == 0 ? 0 : random() % limit; }

template <class Range>
auto const& anyOf(Range const& range, std::mt19937& random) {
  return *(std::begin(range) + static_cast<std::ptrdiff_t>(below(random, std::size(range))));
}

std::string interleaved(std::string_view report, std::mt19937& random) {
  return std::string{'$', static_cast<char>(below(random, 4)), static_cast<char>(report.size() >> 8),
                     static_cast<char>(report.size())}
      .append(report);
}

Step newStep(std::mt19937& random) {
  Step step{
      static_cast<Step::Kind>(anyOf(weightedKinds, random)), static_cast<unsigned>(below(random, connections)), {}};
  if (step.kind == Step::Kind::Send) {
    step.bytes = below(random, 8) == 0 ? interleaved(anyOf(reports, random), random) : anyOf(messages, random);
  } else if (step.kind == Step::Kind::Datagram) {
    step.bytes = anyOf(reports, random);
  } else if (step.kind == Step::Kind::Status) {
    step.bytes = anyOf(statusRequests, random);
  }
  return step;
}

// Removes, duplicates or inserts a line, or shuffles all lines.
void mutateLines(std::string& bytes, std::mt19937& random) {
  std::vector<std::string> lines;
  std::istringstream text(bytes);
  for (std::string line; std::getline(text, line);) {
    lines.push_back(line + '\n');
  }
  auto const place = [&](std::size_t size) { return lines.begin() + static_cast<std::ptrdiff_t>(below(random, size)); };
  std::size_t const change = lines.empty() ? 0 : below(random, 4);
  if (change == 0) {
    lines.insert(place(lines.size() + 1), std::string(anyOf(headerLines, random)) + "\r\n");
  } else if (change == 1) {
    lines.erase(place(lines.size()));
  } else if (change == 2) {
    lines.insert(place(lines.size() + 1), std::string(*place(lines.size())));
  } else {
    std::shuffle(lines.begin(), lines.end(), random);
  }
  bytes = std::accumulate(lines.begin(), lines.end(), std::string());
}

}  // namespace

Script parseScript(std::string const& text) {
  Script script;
  std::istringstream input(text);
  char kind = 0;
  unsigned connection = 0;
  std::size_t size = 0;
  while (script.size() < mostSteps && input.get() == '@' && input >> kind >> connection >> size &&
         weightedKinds.find(kind) != std::string_view::npos && input.get() == '\n' && size <= text.size()) {
    std::string bytes(size, '\0');
    if (!input.read(bytes.data(), static_cast<std::streamsize>(size))) {
      break;
    }
    script.push_back({static_cast<Step::Kind>(kind), connection % connections, std::move(bytes)});
    input.get();
  }
  return script;
}

std::string textOf(Script const& script) {
  std::string text;
  for (Step const& step : script) {
    text += std::string("@") + static_cast<char>(step.kind) + ' ' + std::to_string(step.connection) + ' ' +
            std::to_string(step.bytes.size()) + '\n' + step.bytes + '\n';
  }
  return text;
}

void mutate(Script& script, std::mt19937& random, std::size_t (*mutateBytes)(std::uint8_t*, std::size_t, std::size_t)) {
  auto const place = [&](std::size_t size) {
    return script.begin() + static_cast<std::ptrdiff_t>(below(random, size));
  };
  std::size_t const change = script.empty() ? 0 : below(random, 8);
  if (change == 0) {
    script.insert(place(script.size() + 1), newStep(random));
    return;
  }
  Step& step = *place(script.size());
  switch (change) {
    case 1:
      script.erase(place(script.size()));
      break;
    case 2:
      script.insert(place(script.size() + 1), Step(step));
      break;
    case 3:
      std::swap(step, *place(script.size()));
      break;
    case 4:
      step.connection = static_cast<unsigned>(below(random, connections));
      break;
    case 5: {  // splits a message in two
      Step rest = step;
      std::size_t const cut = below(random, step.bytes.size() + 1);
      rest.bytes.erase(0, cut);
      step.bytes.erase(cut);
      script.insert(script.begin() + (&step - script.data()) + 1, std::move(rest));
      break;
    }
    case 6:
      mutateLines(step.bytes, random);
      break;
    default: {
      std::size_t const size = step.bytes.size();
      step.bytes.resize(size + 64);
      step.bytes.resize(mutateBytes(reinterpret_cast<std::uint8_t*>(step.bytes.data()), size, size + 64));
    }
  }
}

Script crossOver(Script const& one, Script const& other, std::mt19937& random) {
  Script script(one.begin(), one.begin() + static_cast<std::ptrdiff_t>(below(random, one.size() + 1)));
  auto const from = static_cast<std::ptrdiff_t>(below(random, other.size() + 1));
  script.insert(script.end(), other.begin() + from, other.end());
  return script;
}
