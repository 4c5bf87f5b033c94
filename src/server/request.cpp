#include "server/request.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <utility>

#include "server/text.h"

namespace kavo::impl {

namespace {

constexpr std::size_t maxMethod = 32;
constexpr std::size_t maxPath = 180;  // live555 keeps 200 bytes
constexpr std::size_t maxDigits = 10;
constexpr std::size_t maxSession = 32;
constexpr std::size_t maxAuthorization = 1000;

bool isPrintable(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](unsigned char c) { return (c >= ' ' && c != 0x7F) || c == '\t'; });
}

bool isNumber(std::string_view text) {
  return !text.empty() && text.size() <= maxDigits &&
         std::all_of(text.begin(), text.end(), [](unsigned char c) { return c >= '0' && c <= '9'; });
}

bool isMethod(std::string_view text) {
  return !text.empty() && text.size() <= maxMethod &&
         std::all_of(text.begin(), text.end(), [](char c) { return (c >= 'A' && c <= 'Z') || c == '_'; });
}

bool isAlphanumeric(unsigned char c) { return std::isalnum(c) != 0 && c < 0x80; }

// The session id without parameters. Text that cannot be an id is replaced by an id that
// does not exist.
std::string sessionOf(std::string_view value) {
  auto const id = trimmed(value.substr(0, value.find(';')));
  bool const possible = !id.empty() && id.size() <= maxSession && std::all_of(id.begin(), id.end(), isAlphanumeric);
  return possible ? std::string(id) : "unknown";
}

// A live stream has no positions: only whether the client asks for "now" matters.
std::string rangeOf(std::string_view value) {
  if (!startsWithIgnoringCase(value, "npt")) {
    return "";
  }
  auto const equals = value.find('=');
  bool const now = equals != std::string_view::npos && startsWithIgnoringCase(trimmed(value.substr(equals + 1)), "now");
  return now ? "npt=now-" : "npt=0-";
}

std::string optionTags(std::string_view value) {
  std::string tags(value.substr(0, 100));
  std::replace_if(
      tags.begin(), tags.end(),
      [](unsigned char c) {
        return !isAlphanumeric(c) && std::string_view(".-_, ").find(static_cast<char>(c)) == std::string_view::npos;
      },
      '?');
  return tags;
}

void append(std::string& list, std::string_view value) {
  list += list.empty() ? "" : ", ";
  list += value;
}

// Reads the known headers into the request. Only headers that are lists may be repeated.
class Reader {
 public:
  explicit Reader(Request& request) : m_Request(request) {}

  // False for a repeated header or an invalid value.
  bool read(std::string_view name, std::string_view value) {
    auto const is = [&](std::string_view known) { return equalsIgnoringCase(name, known); };
    if (is("CSeq")) {
      m_Request.cseq = isNumber(value) ? value : "";
      return !std::exchange(m_CSeq, true);
    }
    if (is("Content-Length")) {
      auto const [end, error] = std::from_chars(value.data(), value.data() + value.size(), m_Request.bodySize);
      return isNumber(value) && error == std::errc() && m_Request.bodySize <= Request::maxBody &&
             !std::exchange(m_Length, true);
    }
    if (is("Session")) {
      m_Request.session = sessionOf(value);
      return !std::exchange(m_Session, true);
    }
    if (is("Range")) {
      m_Request.range = rangeOf(value);
      return !std::exchange(m_Range, true);
    }
    if (is("Scale")) {
      return !std::exchange(m_Request.scale, true);
    }
    if (is("Authorization")) {
      m_Request.authorization = value;
      return value.size() <= maxAuthorization && !std::exchange(m_Authorization, true);
    }
    if (is("Accept")) {
      m_Request.acceptsSdp = value.find("application/sdp") != std::string_view::npos ||
                             value.find("application/*") != std::string_view::npos ||
                             value.find("*/*") != std::string_view::npos;
    } else if (is("Transport")) {
      append(m_Request.transport, value);
    } else if (is("Require") || is("Proxy-Require")) {
      append(m_Request.require, optionTags(value));
    }
    return true;
  }

 private:
  Request& m_Request;
  bool m_CSeq = false;
  bool m_Length = false;
  bool m_Session = false;
  bool m_Range = false;
  bool m_Authorization = false;
};

bool readRequestLine(std::string_view line, Request& request) {
  auto const first = line.find(' ');
  auto const last = line.rfind(' ');
  if (first == std::string_view::npos || first == last || !isPrintable(line)) {
    return false;
  }
  request.method = line.substr(0, first);
  request.path = Request::pathOf(trimmed(line.substr(first, last - first)));
  auto const version = line.substr(last + 1);
  request.isVersionServed = !version.starts_with("RTSP/") || version.starts_with("RTSP/1.");
  return isMethod(request.method);
}

// Rejects folded lines and blanks before the colon, because parsers disagree on them.
bool readHeaderLine(std::string_view line, Reader& reader) {
  auto const colon = line.find(':');
  auto const name = line.substr(0, colon);
  return colon != std::string_view::npos && !name.empty() && isPrintable(line) &&
         name.find_first_of(" \t") == std::string_view::npos && reader.read(name, trimmed(line.substr(colon + 1)));
}

}  // namespace

// live555 takes the text "RTSP/" for the end of the request line, so a stream with it in its
// name cannot be found.
std::string Request::pathOf(std::string_view url) {
  if (auto const scheme = url.find("://"); scheme != std::string_view::npos && startsWithIgnoringCase(url, "rtsp")) {
    url.remove_prefix(std::min(url.find('/', scheme + 3), url.size()));
  }
  if (url.starts_with('/')) {
    url.remove_prefix(1);
  }
  return url.size() <= maxPath && url.find("RTSP/") == std::string_view::npos ? std::string(url) : "";
}

std::string Request::credential(std::string_view name) const {
  std::string_view const text = authorization;
  std::string const start = std::string(name) + "=\"";
  auto const found = text.find(start);
  if (found == std::string_view::npos) {
    return "";
  }
  auto const value = text.substr(found + start.size());
  return std::string(value.substr(0, value.find('"')));
}

Request Request::parse(std::string_view header) {
  constexpr std::string_view lineEnd = "\r\n";
  Request request;
  Reader reader(request);
  request.valid = true;
  bool requestLine = true;
  // Scans invalid requests to the end too, for their CSeq.
  while (!header.empty()) {
    auto const end = header.find(lineEnd);
    auto const line = header.substr(0, end);
    header.remove_prefix(end == std::string_view::npos ? header.size() : end + lineEnd.size());
    if (!line.empty()) {
      bool const good = requestLine ? readRequestLine(line, request) : readHeaderLine(line, reader);
      request.valid = request.valid && good;
      requestLine = false;
    }
  }
  request.valid = request.valid && !requestLine;
  return request;
}

std::string Request::text() const {
  std::string const url = path == "*" ? path : "rtsp://host/" + path;
  return method + " " + url + " RTSP/1.0\r\nCSeq: " + cseq + "\r\n" +
         (session.empty() ? "" : "Session: " + session + "\r\n") + "\r\n";
}

std::string Request::headers() const {
  return (range.empty() ? "" : "Range: " + range + "\r\n") + (scale ? "Scale: 1\r\n" : "") + "\r\n";
}

}  // namespace kavo::impl
