// An RTSP request (RFC 2326), parsed once into the fields we understand. Any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kavo::impl {

struct Request {
  // In bytes; far more than any client sends.
  static constexpr std::size_t maxBody = 8192;

  // False if the text is not a request or its length is ambiguous, so that nothing after it
  // can be parsed. cseq is set if it was found.
  bool valid = false;
  std::size_t bodySize = 0;

  // Whether the version is RTSP/1.x.
  bool isVersionServed = true;

  std::string method;
  std::string path;       // of the URL, without the leading slash; "*" is the whole server
  std::string cseq;       // digits; empty if there is none
  std::string session;    // the id alone; empty without one
  std::string transport;  // verbatim
  std::string range;      // "npt=now-", "npt=0-", or empty
  bool scale = false;     // whether it has a Scale header; only 1 is served
  std::string require;    // option tags that the client requires; we support none
  bool acceptsSdp = true;
  std::string authorization;  // verbatim; empty if there is none

  // The path of a URL, without the leading slash.
  static std::string pathOf(std::string_view url);
  // A field of the authorization, such as username or uri; empty if it has none.
  std::string credential(std::string_view name) const;

  // Parses the header, up to and including its empty line.
  static Request parse(std::string_view header);

  // The request for live555: each header once, and no body.
  std::string text() const;
  // The headers that live555 looks for while it answers, likewise.
  std::string headers() const;
};

}  // namespace kavo::impl
