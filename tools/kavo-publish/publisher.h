// One session with one stream, published with the library from construction to destruction.
#pragma once

#include <string>

#include "kavo_stream.h"
#include "options.h"

class Publisher {
 public:
  // Throws Failure.
  Publisher(Options const& options, kv_video_record const& video);
  ~Publisher();
  Publisher(Publisher const&) = delete;
  Publisher& operator=(Publisher const&) = delete;

  // Throws Failure.
  void submit(std::uint8_t const* frame);

  std::string const& url() const { return m_Url; }

 private:
  void createSession(Options const& options);
  void createStream(kv_video_record const& video);

  kv_frame_record m_Frame{};
  std::string m_Url;
};
