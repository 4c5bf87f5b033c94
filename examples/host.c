/* A host program in C, on the raw records: every command once.
 *
 *   cc -std=c99 host.c -o host -lkavo_stream
 *   ./host [PORT] [SECONDS]
 */
#define _POSIX_C_SOURCE 199309L /* nanosleep */

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kavo_stream.h"

enum { width = 640, height = 480, frame_rate = 25 };

/* A frame in YUV 4:2:0: the brightness plane, then two colour planes a quarter of its size. */
static uint8_t planes[width * height * 3 / 2];

/* A grey JPEG image of 16x16 pixels without Huffman tables, as cameras make them. */
static uint8_t const frame_header[] = {0xFF, 0xC0, 0, 17, 8, 0, 16, 0, 16, 3, 1, 0x22, 0, 2, 0x11, 0, 3, 0x11, 0};
static uint8_t const scan[] = {0xFF, 0xDA, 0, 12, 3, 1, 0, 2, 0x11, 3, 0x11, 0, 63, 0, 0x28, 0xA2, 0x8A, 0, 0xFF, 0xD9};

static uint64_t make_image(uint8_t* image) {
  static uint8_t const begin[] = {0xFF, 0xD8, 0xFF, 0xDB, 0, 67, 0};
  uint8_t* end = image;
  memcpy(end, begin, sizeof begin);
  end += sizeof begin;
  memset(end, 16, 64); /* the quantization table */
  end += 64;
  memcpy(end, frame_header, sizeof frame_header);
  end += sizeof frame_header;
  memcpy(end, scan, sizeof scan);
  return (uint64_t)(end + sizeof scan - image);
}

static void check(char const* what, int result) {
  if (result != KV_OK) {
    fprintf(stderr, "%s: %s\n", what, kv_result_text(result));
    exit(1);
  }
}

static kv_session_record create_session(char const* name) {
  kv_session_record session = {0};
  strcpy(session.name, name);
  strcpy(session.info, "test pattern");
  strcpy(session.description, "test pattern");
  check("creating a session", kv_Stream(KV_CREATE_SESSION, &session, sizeof session));
  return session;
}

int main(int argc, char** argv) {
  uint32_t port = argc > 1 ? (uint32_t)atoi(argv[1]) : 8554;
  int const frames = argc > 2 ? atoi(argv[2]) * frame_rate : -1;
  check("starting the server", kv_Stream(KV_INIT, &port, sizeof port));

  /* A stream of raw frames. */
  kv_session_record session = create_session("host");
  kv_video_record video = {0};
  video.src_width = video.dst_width = width;
  video.src_height = video.dst_height = height;
  video.src_pixel_format = KV_YUV420P;
  video.dst_codec = KV_CODEC_MJPEG;
  video.frame_rate = frame_rate;
  video.bitrate = 400000; /* JPEG: bits per frame */
  kv_stream_record stream = {0};
  stream.handle = session.handle;
  stream.media_type = KV_MEDIA_VIDEO;
  stream.video = &video;
  check("creating a stream", kv_Stream(KV_CREATE_STREAM, &stream, sizeof stream));
  kv_frame_record frame = {0};
  frame.handle = session.handle;
  frame.stream = stream.stream;
  frame.frame = planes;

  /* A stream of encoded frames. */
  kv_session_record other = create_session("encoded");
  kv_encoded_stream_record encoded_stream = {0};
  encoded_stream.handle = other.handle;
  encoded_stream.codec = KV_CODEC_MJPEG;
  check("creating an encoded stream", kv_Stream(KV_CREATE_ENCODED_STREAM, &encoded_stream, sizeof encoded_stream));
  uint8_t image[256];
  kv_encoded_frame_record encoded_frame = {0};
  encoded_frame.handle = other.handle;
  encoded_frame.stream = encoded_stream.stream;
  encoded_frame.data = image;
  encoded_frame.size = make_image(image);

  /* The URL of the machine's address at this moment. */
  check("asking for the URL", kv_Stream(KV_GET_INFO, &session, sizeof session));
  printf("%s\n", session.url);
  fflush(stdout);

  memset(planes, 128, sizeof planes);
  for (int n = 0; n != frames; ++n) {
    memset(planes, n * 2 & 0xFF, width * height);
    check("submitting a frame", kv_Stream(KV_SUBMIT_FRAME, &frame, sizeof frame));
    check("submitting an image", kv_Stream(KV_SUBMIT_ENCODED, &encoded_frame, sizeof encoded_frame));
    struct timespec const pause = {0, 1000000000 / frame_rate};
    nanosleep(&pause, NULL);
  }

  kv_status_record status = {0};
  status.handle = session.handle;
  status.stream = stream.stream;
  check("asking for the status", kv_Stream(KV_GET_STATUS, &status, sizeof status));
  printf("%u viewers, %llu frames sent\n", (unsigned)status.viewers, (unsigned long long)status.sent_frames);
  /* The handle itself, not its address. */
  check("removing a session", kv_Stream(KV_REMOVE_SESSION, session.handle, sizeof session.handle));
  return kv_Stream(KV_EXIT, NULL, 0);
}
