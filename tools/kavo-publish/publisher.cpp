#include "publisher.h"

#include <cstdio>

namespace {

void check(int result, std::string const& what, std::string const& hint) {
  if (result != KV_OK) {
    throw Failure(what + " (result " + std::to_string(result) + "): " + hint);
  }
}

// On a machine that is offline the server knows no address of its own.
std::string reachable(std::string url) {
  std::string const none = "//0.0.0.0:";
  auto const at = url.find(none);
  return at == std::string::npos ? url : url.replace(at, none.size(), "//127.0.0.1:");
}

}  // namespace

Publisher::Publisher(Options const& options) {
  std::uint32_t port = options.port;
  check(kv_Stream(KV_INIT, &port, sizeof port), "cannot serve on port " + std::to_string(port),
        "it is taken or not allowed, choose another with --port");
  try {
    createSession(options.name);
  } catch (...) {
    kv_Stream(KV_EXIT, nullptr, 0);
    throw;
  }
}

Publisher::~Publisher() { kv_Stream(KV_EXIT, nullptr, 0); }

void Publisher::createSession(std::string const& name) {
  kv_session_record session{};
  std::snprintf(session.name, sizeof session.name, "%s", name.c_str());
  std::snprintf(session.info, sizeof session.info, "live video");
  std::snprintf(session.description, sizeof session.description, "%s", name.c_str());
  check(kv_Stream(KV_CREATE_SESSION, &session, sizeof session), "cannot create the session", "try another --name");
  m_Frame.handle = session.handle;
  m_Url = reachable(session.url);
}

int Publisher::createStream(kv_video_record const& video) {
  kv_stream_record stream{};
  stream.handle = m_Frame.handle;
  stream.media_type = KV_MEDIA_VIDEO;
  stream.video = &video;
  int const result = kv_Stream(KV_CREATE_STREAM, &stream, sizeof stream);
  m_Frame.stream = stream.stream;
  return result;
}

void Publisher::submit(std::uint8_t const* frame) {
  m_Frame.frame = frame;
  check(kv_Stream(KV_SUBMIT_FRAME, &m_Frame, sizeof m_Frame), "a frame could not be encoded", "the stream has ended");
}
