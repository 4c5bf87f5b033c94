/* A host program in C, on the raw records.
 *
 *   cc -std=c11 host.c -o host -lkavo_stream
 *   ./host [PORT] [SECONDS]
 */
#define _POSIX_C_SOURCE 199309L /* nanosleep */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kavo_stream.h"

enum { width = 640, height = 480, frame_rate = 25 };

static uint8_t pixels[width * height * 3];

static int failed(char const* what, int result) {
  fprintf(stderr, "%s failed with result %d\n", what, result);
  return 1;
}

int main(int argc, char** argv) {
  uint32_t port = argc > 1 ? (uint32_t)atoi(argv[1]) : 8554;
  int const frames = argc > 2 ? atoi(argv[2]) * frame_rate : -1;
  int result = kv_Stream(KV_INIT, &port, sizeof port);
  if (result != KV_OK) {
    return failed("starting the server", result);
  }

  kv_session_record session = {0};
  strcpy(session.name, "host");
  strcpy(session.info, "test pattern");
  strcpy(session.description, "test pattern");
  result = kv_Stream(KV_CREATE_SESSION, &session, sizeof session);
  if (result != KV_OK) {
    return failed("creating the session", result);
  }

  kv_video_record video = {0};
  video.src_width = video.dst_width = width;
  video.src_height = video.dst_height = height;
  video.src_pixel_format = KV_RGB24;
  video.dst_codec = KV_CODEC_MJPEG;
  video.frame_rate = frame_rate;
  video.bitrate = 400000; /* JPEG: bits per frame */
  kv_stream_record stream = {0};
  stream.handle = session.handle;
  stream.media_type = KV_MEDIA_VIDEO;
  stream.video = &video;
  result = kv_Stream(KV_CREATE_STREAM, &stream, sizeof stream);
  if (result != KV_OK) {
    return failed("creating the stream", result);
  }
  printf("%s\n", session.url);
  fflush(stdout);

  kv_frame_record frame = {0};
  frame.handle = session.handle;
  frame.stream = stream.stream;
  frame.frame = pixels;
  for (int n = 0; n != frames && result == KV_OK; ++n) {
    memset(pixels, n * 2 & 0xFF, sizeof pixels);
    result = kv_Stream(KV_SUBMIT_FRAME, &frame, sizeof frame);
    struct timespec const pause = {0, 1000000000 / frame_rate};
    nanosleep(&pause, NULL);
  }
  kv_Stream(KV_EXIT, NULL, 0);
  return result == KV_OK ? 0 : failed("submitting a frame", result);
}
