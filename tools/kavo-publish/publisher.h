// One session with one stream, published with the library from construction to destruction.
#pragma once

#include <string>

#include "kavo_stream.h"
#include "options.h"

class Publisher {
 public:
  // Serves, with one session that is still without a stream. Throws Failure.
  explicit Publisher(Options const& options);
  ~Publisher();
  Publisher(Publisher const&) = delete;
  Publisher& operator=(Publisher const&) = delete;

  // Gives the session its stream, and says how that went (a kv_result).
  int createStream(kv_video_record const& video);
  // Throws Failure.
  void submit(std::uint8_t const* frame);

  std::string const& url() const { return m_Url; }

 private:
  void createSession(std::string const& name);

  kv_frame_record m_Frame{};
  std::string m_Url;
};
