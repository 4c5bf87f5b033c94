/** @file
 * Kavo Stream: live video over RTSP from a host program's frames, raw or encoded.
 *
 * The whole library is one function, kv_Stream(command, param, size): a command
 * number, the address of the command's record, and the record's size in bytes.
 * It returns one of the result codes below and never throws. Link with
 * -lkavo_stream. The header serves C (C99) and C++ (C++11) on 64-bit Linux.
 *
 * Threads. Any number of threads may call at the same time; calls are serialised. A
 * frame is scaled and encoded inside its submit call, on the calling thread. From init
 * to exit the library has one thread of its own, which serves the clients; it never
 * calls the host.
 *
 * Memory. The host owns records and frames. The library accesses them only during
 * the call and keeps no pointer to them. It writes to a record only when the call
 * returns KV_OK.
 *
 * The process. The library's thread blocks all signals; SIGPIPE handling is
 * left unchanged. In a child forked between KV_INIT and KV_EXIT, calls return
 * KV_RESOURCE_FAILURE (KV_EXIT: KV_OK) and leave the server to the parent. If memory
 * runs out, a call fails and changes nothing: the same call may succeed later.
 */
#ifndef KAVO_STREAM_H
#define KAVO_STREAM_H

/* The release that this header belongs to. */
#define KV_VERSION_MAJOR 2 /**< the ABI's generation */
#define KV_VERSION_MINOR 0 /**< backward-compatible additions */
#define KV_VERSION_PATCH 0 /**< fixes only */

#include <stddef.h>
#include <stdint.h>

/** @cond */
#ifdef __cplusplus
#define KV_STATIC_ASSERT(condition) static_assert(condition, #condition)
#else
#define KV_STATIC_ASSERT(condition) __extension__ _Static_assert(condition, #condition)
#endif
#define KV_FIELD_AT(record, field, position) KV_STATIC_ASSERT(offsetof(record, field) == (position))
/** @endcond */

/** The commands of kv_Stream. */
enum kv_command {
  /** Start the RTSP server: param is the address of a uint32_t with the TCP port
   * (1 to 65535) and size 4, or null and 0 for port 8554. KV_RESOURCE_FAILURE
   * if the port is in use on any of the machine's address families. */
  KV_INIT = 0,
  /** Stop the server and drop every session; always succeeds. param and size are
   * ignored, and KV_OK is returned even if nothing was started. KV_INIT may
   * follow, on the same port at once. */
  KV_EXIT = 1,
  /** kv_session_record: create a session, which is one RTSP URL. */
  KV_CREATE_SESSION = 2,
  /** Remove a session and disconnect its viewers: param is the handle itself,
   * size is 8. */
  KV_REMOVE_SESSION = 3,
  /** kv_stream_record: create a session's one video stream. */
  KV_CREATE_STREAM = 4,
  /** kv_frame_record: submit one raw frame to a stream. */
  KV_SUBMIT_FRAME = 5,
  /** kv_session_record: read back a session's texts and URL. */
  KV_GET_INFO = 6,
  /** kv_encoded_stream_record: create a session's one video stream, for frames from the host's own
   * encoder. Results as for KV_CREATE_STREAM; KV_CODEC_FAILURE for parameter sets that cannot be read. */
  KV_CREATE_ENCODED_STREAM = 100,
  /** kv_encoded_frame_record: submit one encoded frame to such a stream. Results as for KV_SUBMIT_FRAME;
   * KV_CODEC_FAILURE for bytes that are not a whole frame: none of them are sent. */
  KV_SUBMIT_ENCODED = 101,
  /** kv_status_record: read a stream's counters and whether anybody watches. Takes less than a
   * microsecond and does not wait for other calls. Results as for KV_SUBMIT_FRAME. */
  KV_GET_STATUS = 102
};

/** The results of kv_Stream. */
enum kv_result {
  KV_OK = 0,                /**< done */
  KV_NOT_STARTED = 1,       /**< KV_INIT has not been called */
  KV_ALREADY_THERE = 2,     /**< the server is running, or the session has a stream already */
  KV_INVALID_PARAMETER = 3, /**< unknown command, wrong size or invalid value */
  KV_NAME_IN_USE = 4,       /**< another session has this name */
  KV_UNKNOWN = 5,           /**< no such session, or the session has no such stream */
  KV_RESOURCE_FAILURE = 6,  /**< port in use, no descriptors, no memory; or the server has failed: KV_EXIT, KV_INIT */
  KV_CODEC_FAILURE = 7,     /**< the codec refuses the frame size or settings, or OpenH264 is missing */
  KV_UNEXPECTED = -1        /**< anything else: usually the standard library ran out of memory */
};

/** A short description of a result; accepts any number. */
inline static char const* kv_result_text(int result) {
  switch (result) {
    case KV_OK:
      return "success";
    case KV_NOT_STARTED:
      return "the server is not running";
    case KV_ALREADY_THERE:
      return "already exists";
    case KV_INVALID_PARAMETER:
      return "invalid value";
    case KV_NAME_IN_USE:
      return "another session has this name";
    case KV_UNKNOWN:
      return "no such session or stream";
    case KV_RESOURCE_FAILURE:
      return "resource unavailable (port in use? the policy file? out of descriptors or memory?)";
    case KV_CODEC_FAILURE:
      return "the codec refused";
    default:
      return "unexpected failure";
  }
}

/** Raw frame layouts. Frames are tightly packed: no padding between rows or planes.
 * In the planar layouts the Y plane is followed by U and V, whose rows are half as
 * long (rounded up); 4:2:0 has half as many of them (rounded up). The numbers are
 * this interface's own and do not change with FFmpeg's. */
enum kv_pixel_format {
  KV_YUV420P = 0,   /**< planar 4:2:0, limited range (16 to 235) */
  KV_RGB24 = 2,     /**< three bytes a pixel, in the order of the name */
  KV_BGR24 = 3,     /**< three bytes a pixel */
  KV_YUV422P = 4,   /**< planar 4:2:2, limited range */
  KV_YUVJ420P = 12, /**< planar 4:2:0, full range (0 to 255) */
  KV_YUVJ422P = 13, /**< planar 4:2:2, full range */
  KV_ARGB = 27,     /**< four bytes a pixel, in the order of the name */
  KV_RGBA = 28,     /**< four bytes a pixel */
  KV_ABGR = 29,     /**< four bytes a pixel */
  KV_BGRA = 30      /**< four bytes a pixel */
};

/** Codecs. The numbers are this interface's own too. */
enum kv_codec {
  KV_CODEC_RAW = 0,   /**< input: raw frames */
  KV_CODEC_MJPEG = 8, /**< output: JPEG over RTP (RFC 2435) */
  KV_CODEC_H264 = 28, /**< output: H.264 over RTP (RFC 6184); raw frames need libopenh264.so at run time */
  KV_CODEC_H265 = 174 /**< only for encoded frames: H.265 over RTP (RFC 7798) */
};

/** Media type; only video is supported. */
enum kv_media_type { KV_MEDIA_VIDEO = 0 };

/** Identifies a session, from KV_CREATE_SESSION until KV_REMOVE_SESSION or KV_EXIT. */
typedef void* kv_session_handle;
/** Identifies a session's stream. */
typedef void* kv_stream_id;

/** KV_CREATE_SESSION and KV_GET_INFO. The host sets the three texts when it creates a
 * session: each 1 to 19 bytes without control characters, and a NUL. UTF-8 is accepted.
 * Use letters, digits and -_.~ for names, which URLs carry unchanged; clients have to
 * send other bytes raw, and cannot use / ? # % and blanks. */
typedef struct kv_session_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< out of KV_CREATE_SESSION, into KV_GET_INFO */
  char name[20];            /**< last element of the URL, unique among the live sessions */
  char info[20];            /**< the SDP's session information */
  char description[20];     /**< the SDP's session name, which players show as the title */
  char url[260];            /**< out: rtsp://ADDRESS:PORT/NAME with the machine's own address */
} kv_session_record;
KV_FIELD_AT(kv_session_record, handle, 8);
KV_FIELD_AT(kv_session_record, name, 16);
KV_FIELD_AT(kv_session_record, info, 36);
KV_FIELD_AT(kv_session_record, description, 56);
KV_FIELD_AT(kv_session_record, url, 76);
KV_STATIC_ASSERT(sizeof(kv_session_record) == 336);

/** The stream to create. */
typedef struct kv_video_record {
  int32_t reserved;         /**< not used */
  int32_t src_width;        /**< submitted frames, pixels */
  int32_t src_height;       /**< pixels */
  int32_t dst_width;        /**< encoded frames, pixels; frames of another size are scaled */
  int32_t dst_height;       /**< pixels. JPEG: each at most 2040 and a multiple of 4; choose multiples of 8, the
                             * steps that RTP/JPEG can express (with other sizes viewers miss the last 4 rows or
                             * columns, and see garbage if the width is 16 n + 4). H.264: at most 4096 x 2304, even */
  int32_t src_pixel_format; /**< one of kv_pixel_format */
  int32_t dst_pixel_format; /**< not used */
  int32_t src_codec;        /**< KV_CODEC_RAW; KV_CODEC_MJPEG is accepted too, but frames must still be raw */
  int32_t dst_codec;        /**< KV_CODEC_MJPEG or KV_CODEC_H264 */
  int32_t frame_rate;       /**< H.264: frames per second that the host submits; JPEG: not used */
  int32_t bitrate;          /**< not 0. H.264: bits per second. JPEG: bits per frame, whatever the frame rate:
                             * 400000 is 50 kB a frame */
} kv_video_record;
KV_FIELD_AT(kv_video_record, src_width, 4);
KV_FIELD_AT(kv_video_record, src_height, 8);
KV_FIELD_AT(kv_video_record, dst_width, 12);
KV_FIELD_AT(kv_video_record, dst_height, 16);
KV_FIELD_AT(kv_video_record, src_pixel_format, 20);
KV_FIELD_AT(kv_video_record, dst_pixel_format, 24);
KV_FIELD_AT(kv_video_record, src_codec, 28);
KV_FIELD_AT(kv_video_record, dst_codec, 32);
KV_FIELD_AT(kv_video_record, frame_rate, 36);
KV_FIELD_AT(kv_video_record, bitrate, 40);
KV_STATIC_ASSERT(sizeof(kv_video_record) == 44);

/** KV_CREATE_STREAM. */
typedef struct kv_stream_record {
  void* reserved;               /**< not used */
  kv_session_handle handle;     /**< the session that gets the stream */
  kv_stream_id stream;          /**< out */
  int32_t media_type;           /**< KV_MEDIA_VIDEO */
  int32_t gap;                  /**< not used */
  kv_video_record const* video; /**< read during the call */
} kv_stream_record;
KV_FIELD_AT(kv_stream_record, handle, 8);
KV_FIELD_AT(kv_stream_record, stream, 16);
KV_FIELD_AT(kv_stream_record, media_type, 24);
KV_FIELD_AT(kv_stream_record, video, 32);
KV_STATIC_ASSERT(sizeof(kv_stream_record) == 40);

/** KV_SUBMIT_FRAME. While nobody watches the stream, the call does nothing and returns
 * KV_OK at once; likewise while ten encoded frames are queued. */
typedef struct kv_frame_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< the session */
  kv_stream_id stream;      /**< its stream */
  uint8_t const* frame;     /**< one frame of the stream's source size and format; read during the call only, and
                             * never past its end */
  void* reserved2;          /**< not used */
} kv_frame_record;
KV_FIELD_AT(kv_frame_record, handle, 8);
KV_FIELD_AT(kv_frame_record, stream, 16);
KV_FIELD_AT(kv_frame_record, frame, 24);
KV_STATIC_ASSERT(sizeof(kv_frame_record) == 40);

/** Bits of wanted. */
enum kv_wanted {
  KV_WANTS_FRAME = 1,    /**< somebody is watching: a submitted frame would be encoded */
  KV_WANTS_KEY_FRAME = 2 /**< a viewer needs a key frame: the next frame becomes one, or should be one */
};

/** KV_CREATE_ENCODED_STREAM. */
typedef struct kv_encoded_stream_record {
  void* reserved;                /**< not used */
  kv_session_handle handle;      /**< the session that gets the stream */
  kv_stream_id stream;           /**< out */
  int32_t codec;                 /**< KV_CODEC_MJPEG, KV_CODEC_H264 or KV_CODEC_H265 */
  int32_t bitrate;               /**< kbit/s, for the SDP's bandwidth line; 0: unknown */
  uint8_t const* parameter_sets; /**< SPS and PPS, for H.265 also the VPS, in Annex B form, for the SDP; null: they
                                  * are taken from the frames. Read during the call only */
  int32_t parameter_size;        /**< their size in bytes */
  int32_t gap;                   /**< not used */
} kv_encoded_stream_record;
KV_FIELD_AT(kv_encoded_stream_record, handle, 8);
KV_FIELD_AT(kv_encoded_stream_record, stream, 16);
KV_FIELD_AT(kv_encoded_stream_record, codec, 24);
KV_FIELD_AT(kv_encoded_stream_record, bitrate, 28);
KV_FIELD_AT(kv_encoded_stream_record, parameter_sets, 32);
KV_FIELD_AT(kv_encoded_stream_record, parameter_size, 40);
KV_STATIC_ASSERT(sizeof(kv_encoded_stream_record) == 48);

/** KV_SUBMIT_ENCODED. While nobody watches the stream, the call does not look at the data and
 * returns KV_OK at once; otherwise it copies the frame into the queue. If ten others are queued,
 * the frame is dropped, and so are those after it up to the next key frame.
 *
 * H.264 and H.265: one access unit in Annex B form (start codes of three or four bytes), in
 * decoding order. B-frames are not possible: frames are shown in the order in which they arrive.
 * Key frames are IDR, in H.265 any IRAP; one without parameter sets gets the last known ones. A
 * new viewer starts with a key frame, so the encoder should make one when wanted says so.
 *
 * JPEG: one baseline image with 8 bits, 4:2:0 or 4:2:2 (where a block of Cb and Cr covers 16x8
 * pixels), up to 2040x2040 in steps of 8, with the standard Huffman tables or none. */
typedef struct kv_encoded_frame_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< the session */
  kv_stream_id stream;      /**< its stream */
  uint8_t const* data;      /**< one encoded frame; read during the call only */
  uint64_t size;            /**< bytes, at most 8,000,000 */
  int64_t time_ns;          /**< capture time on CLOCK_MONOTONIC, which must be later than the previous frame's
                             * (else KV_INVALID_PARAMETER); 0: now */
  uint32_t wanted;          /**< out: flags of kv_wanted */
  uint32_t gap;             /**< not used */
} kv_encoded_frame_record;
KV_FIELD_AT(kv_encoded_frame_record, handle, 8);
KV_FIELD_AT(kv_encoded_frame_record, stream, 16);
KV_FIELD_AT(kv_encoded_frame_record, data, 24);
KV_FIELD_AT(kv_encoded_frame_record, size, 32);
KV_FIELD_AT(kv_encoded_frame_record, time_ns, 40);
KV_FIELD_AT(kv_encoded_frame_record, wanted, 48);
KV_STATIC_ASSERT(sizeof(kv_encoded_frame_record) == 56);

/** KV_GET_STATUS. All counts, except sent_bytes, are of frames since the stream was created. */
typedef struct kv_status_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< the session */
  kv_stream_id stream;      /**< its stream */
  uint32_t viewers;         /**< out: how many are playing or about to */
  uint32_t wanted;          /**< out: flags of kv_wanted */
  uint64_t offered;         /**< out: submitted */
  uint64_t encoded;         /**< out */
  uint64_t unwatched;       /**< out: not encoded because nobody watched */
  uint64_t failed;          /**< out: could not be encoded */
  uint64_t sent_frames;     /**< out: sent to at least one viewer */
  uint64_t sent_bytes;      /**< out: bytes of RTP packets sent, to all viewers */
} kv_status_record;
KV_FIELD_AT(kv_status_record, handle, 8);
KV_FIELD_AT(kv_status_record, stream, 16);
KV_FIELD_AT(kv_status_record, viewers, 24);
KV_FIELD_AT(kv_status_record, wanted, 28);
KV_FIELD_AT(kv_status_record, offered, 32);
KV_FIELD_AT(kv_status_record, sent_bytes, 72);
KV_STATIC_ASSERT(sizeof(kv_status_record) == 80);

/** Executes a command: the whole interface of the library. Any thread.
 * The exported symbol is the C++ name; in C the label binds the plain name to it.
 * @param command  one of kv_command
 * @param param    the command's record, read and written during the call only
 * @param size     the exact size of the record in bytes
 * @return         one of kv_result; on failure nothing has changed */
#ifdef __cplusplus
int kv_Stream(int command, void* param, int size);
#else
int kv_Stream(int command, void* param, int size) __asm__("_Z9kv_StreamiPvi");
#endif

#endif /* KAVO_STREAM_H */
