// Records of kv_Stream, filled in.
#pragma once

#include <cstdio>
#include <string>

#include "kavo_stream.h"

inline kv_session_record sessionRecord(std::string const& name) {
  kv_session_record record{};
  std::snprintf(record.name, sizeof record.name, "%s", name.c_str());
  std::snprintf(record.info, sizeof record.info, "the info");
  std::snprintf(record.description, sizeof record.description, "the description");
  return record;
}

inline kv_video_record videoRecord(int format, int codec, int width, int height) {
  kv_video_record record{};
  record.reserved = 4711;
  record.src_width = record.dst_width = width;
  record.src_height = record.dst_height = height;
  record.src_pixel_format = format;
  record.dst_pixel_format = 99;  // has no effect
  record.dst_codec = codec;
  record.frame_rate = 25;
  record.bitrate = 800000;
  return record;
}

// Creates a session and its stream by call(command, record). Returns the record to submit frames with.
template <class Call>
kv_frame_record createStream(kv_session_record& session, kv_video_record const& video, Call const& call) {
  call(KV_CREATE_SESSION, session);
  kv_stream_record stream{};
  stream.handle = session.handle;
  stream.video = &video;
  call(KV_CREATE_STREAM, stream);
  kv_frame_record frame{};
  frame.handle = session.handle;
  frame.stream = stream.stream;
  return frame;
}
