/** @file
 * Kavo Stream: live video over RTSP from a host program's frames, raw or encoded.
 *
 * The whole library is one function, kv_Stream(command, param, size): a command
 * number, the address of the command's record, and the record's size in bytes.
 * It returns one of the result codes below and never throws. Link with
 * -lkavo_stream. The header serves C (C99) and C++ (C++11) on 64-bit Linux.
 *
 * Threads. Any thread may call, any number at once; calls are serialised. A
 * frame is scaled and encoded inside its submit call, on the calling thread. The
 * library has one thread of its own, from init to exit, which serves the clients;
 * it never calls the host.
 *
 * Memory. Records and frames are the host's. The library reads and writes them
 * only during the call and keeps no pointer to them. A record is written only
 * when the call returns KV_OK.
 *
 * The process. The library's thread blocks all signals; SIGPIPE handling is
 * left unchanged. In a child forked between KV_INIT and KV_EXIT, calls return
 * KV_RESOURCE_FAILURE (KV_EXIT: KV_OK) and leave the server to the parent. Where
 * memory is short, a call fails and changes nothing: the same call may succeed later.
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

/** What kv_Stream can be asked for. */
enum kv_command {
  /** Start the RTSP server: param is the address of a uint32_t with the TCP port
   * (1 to 65535) and size 4, or null and 0 for port 8554. KV_RESOURCE_FAILURE
   * when the port is taken on any of the machine's address families. */
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
  /** kv_stream_record: give a session its one video stream. */
  KV_CREATE_STREAM = 4,
  /** kv_frame_record: hand one raw frame to a stream. */
  KV_SUBMIT_FRAME = 5,
  /** kv_session_record: read back a session's texts and URL. */
  KV_GET_INFO = 6,
  /** kv_encoded_stream_record: give a session its one video stream, of frames that the host's own
   * encoder makes. Results as KV_CREATE_STREAM's; KV_CODEC_FAILURE for parameter sets that cannot be read. */
  KV_CREATE_ENCODED_STREAM = 100,
  /** kv_encoded_frame_record: hand one encoded frame to such a stream. Results as KV_SUBMIT_FRAME's;
   * KV_CODEC_FAILURE for bytes that are no whole frame: nothing of them is sent. */
  KV_SUBMIT_ENCODED = 101,
  /** kv_status_record: what a stream does, and who watches it. Costs less than a
   * microsecond and waits for no other call. Results as KV_SUBMIT_FRAME's. */
  KV_GET_STATUS = 102
};

/** What kv_Stream returns. */
enum kv_result {
  KV_OK = 0,                /**< done */
  KV_NOT_STARTED = 1,       /**< KV_INIT has not been called */
  KV_ALREADY_THERE = 2,     /**< the server runs, or the session has its stream */
  KV_INVALID_PARAMETER = 3, /**< unknown command, wrong size, or a value refused */
  KV_NAME_IN_USE = 4,       /**< another session has this name */
  KV_UNKNOWN = 5,           /**< no such session, or not a stream of it */
  KV_RESOURCE_FAILURE = 6,  /**< port taken, no descriptors, no memory; or the server has failed: KV_EXIT, KV_INIT */
  KV_CODEC_FAILURE = 7,     /**< frame size or settings that the codec refuses, or OpenH264 is missing */
  KV_UNEXPECTED = -1        /**< anything else: no memory, where the standard library says so */
};

/** What a result says, in a few words; of any number. */
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

/** Raw frame layouts. A frame is tightly packed: no padding between rows or
 * planes. In the planar layouts the Y plane is followed by U and V; their rows
 * are half as wide (rounded up), in 4:2:0 there are half as many (rounded up).
 * The numbers are this interface's own and do not change with FFmpeg's. */
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

/** What streams are encoded as. The numbers are this interface's own, like the above. */
enum kv_codec {
  KV_CODEC_RAW = 0,   /**< input: raw frames */
  KV_CODEC_MJPEG = 8, /**< output: JPEG over RTP (RFC 2435) */
  KV_CODEC_H264 = 28, /**< output: H.264 over RTP (RFC 6184); raw frames need libopenh264.so at run time */
  KV_CODEC_H265 = 174 /**< encoded frames alone: H.265 over RTP (RFC 7798) */
};

/** Media type; only video is supported. */
enum kv_media_type { KV_MEDIA_VIDEO = 0 };

/** Names a session, from KV_CREATE_SESSION on until KV_REMOVE_SESSION or KV_EXIT. */
typedef void* kv_session_handle;
/** Names the stream of a session. */
typedef void* kv_stream_id;

/** KV_CREATE_SESSION and KV_GET_INFO. The three texts are the host's to give
 * when a session is created: each of 1 to 19 bytes without control characters,
 * and a NUL. UTF-8 is accepted. A URL carries a name of letters, digits and -_.~ as
 * it is; clients have to send other bytes raw, and cannot use / ? # % and blanks. */
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
                             * steps that RTP/JPEG can express (of other sizes viewers see the last 4 rows or
                             * columns missing, of a width of 16 n + 4 garbage). H.264: at most 4096 x 2304, even */
  int32_t src_pixel_format; /**< one of kv_pixel_format */
  int32_t dst_pixel_format; /**< not used */
  int32_t src_codec;        /**< KV_CODEC_RAW; KV_CODEC_MJPEG is accepted too, and frames are raw all the same */
  int32_t dst_codec;        /**< KV_CODEC_MJPEG or KV_CODEC_H264 */
  int32_t frame_rate;       /**< H.264: frames per second, at which the host submits; JPEG: not used */
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

/** KV_SUBMIT_FRAME. While nobody watches the stream the call returns KV_OK at
 * once and does nothing; likewise while ten encoded frames are queued. */
typedef struct kv_frame_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< the session */
  kv_stream_id stream;      /**< its stream */
  uint8_t const* frame;     /**< one frame of the stream's source size and format; only its own bytes are read, and
                             * only during the call */
  void* reserved2;          /**< not used */
} kv_frame_record;
KV_FIELD_AT(kv_frame_record, handle, 8);
KV_FIELD_AT(kv_frame_record, stream, 16);
KV_FIELD_AT(kv_frame_record, frame, 24);
KV_STATIC_ASSERT(sizeof(kv_frame_record) == 40);

/** Bits of wanted. */
enum kv_wanted {
  KV_WANTS_FRAME = 1,    /**< somebody plays: a submitted frame would be encoded */
  KV_WANTS_KEY_FRAME = 2 /**< a viewer needs a key frame: the next frame becomes, or should be, one */
};

/** KV_CREATE_ENCODED_STREAM. */
typedef struct kv_encoded_stream_record {
  void* reserved;                /**< not used */
  kv_session_handle handle;      /**< the session that gets the stream */
  kv_stream_id stream;           /**< out */
  int32_t codec;                 /**< KV_CODEC_MJPEG, KV_CODEC_H264 or KV_CODEC_H265 */
  int32_t bitrate;               /**< kbit/s, for the SDP's bandwidth line; 0: unknown */
  uint8_t const* parameter_sets; /**< SPS and PPS, for H.265 the VPS too, in Annex B form, for the SDP; or null:
                                  * they are learnt from the frames. Read during the call only */
  int32_t parameter_size;        /**< bytes of them */
  int32_t gap;                   /**< not used */
} kv_encoded_stream_record;
KV_FIELD_AT(kv_encoded_stream_record, handle, 8);
KV_FIELD_AT(kv_encoded_stream_record, stream, 16);
KV_FIELD_AT(kv_encoded_stream_record, codec, 24);
KV_FIELD_AT(kv_encoded_stream_record, bitrate, 28);
KV_FIELD_AT(kv_encoded_stream_record, parameter_sets, 32);
KV_FIELD_AT(kv_encoded_stream_record, parameter_size, 40);
KV_STATIC_ASSERT(sizeof(kv_encoded_stream_record) == 48);

/** KV_SUBMIT_ENCODED. While nobody watches the stream the call returns KV_OK at once and does
 * not look at the data; otherwise it copies the frame into the queue. A frame that finds ten
 * others queued is dropped, and so are those after it up to the next key frame.
 *
 * H.264 and H.265: one access unit in Annex B form (start codes of three or four bytes), in
 * decoding order. There can be no B-frames: frames are shown in the order in which they come.
 * Key frames are IDR, in H.265 any IRAP; one that comes without parameter sets gets the last ones
 * known. A new viewer begins with a key frame, so the encoder makes one when wanted says so.
 *
 * JPEG: one baseline image of 8 bits, 4:2:0 or 4:2:2 (in which a block of Cb and Cr covers 16x8
 * pixels), of up to 2040x2040 in steps of 8, with the standard Huffman tables or none. */
typedef struct kv_encoded_frame_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< the session */
  kv_stream_id stream;      /**< its stream */
  uint8_t const* data;      /**< one encoded frame; only read during the call */
  uint64_t size;            /**< bytes, at most 8,000,000 */
  int64_t time_ns;          /**< when it was captured, by CLOCK_MONOTONIC: later than the one before, or
                             * KV_INVALID_PARAMETER; 0: now */
  uint32_t wanted;          /**< out: of kv_wanted */
  uint32_t gap;             /**< not used */
} kv_encoded_frame_record;
KV_FIELD_AT(kv_encoded_frame_record, handle, 8);
KV_FIELD_AT(kv_encoded_frame_record, stream, 16);
KV_FIELD_AT(kv_encoded_frame_record, data, 24);
KV_FIELD_AT(kv_encoded_frame_record, size, 32);
KV_FIELD_AT(kv_encoded_frame_record, time_ns, 40);
KV_FIELD_AT(kv_encoded_frame_record, wanted, 48);
KV_STATIC_ASSERT(sizeof(kv_encoded_frame_record) == 56);

/** KV_GET_STATUS. Counts are of frames, since the stream was created. */
typedef struct kv_status_record {
  void* reserved;           /**< not used */
  kv_session_handle handle; /**< the session */
  kv_stream_id stream;      /**< its stream */
  uint32_t viewers;         /**< out: how many play, or are about to */
  uint32_t wanted;          /**< out: of kv_wanted */
  uint64_t offered;         /**< out: submitted */
  uint64_t encoded;         /**< out */
  uint64_t unwatched;       /**< out: not encoded, since nobody watched */
  uint64_t failed;          /**< out: could not be encoded */
  uint64_t sent_frames;     /**< out: sent to at least one viewer */
  uint64_t sent_bytes;      /**< out: of RTP packets, to all viewers */
} kv_status_record;
KV_FIELD_AT(kv_status_record, handle, 8);
KV_FIELD_AT(kv_status_record, stream, 16);
KV_FIELD_AT(kv_status_record, viewers, 24);
KV_FIELD_AT(kv_status_record, wanted, 28);
KV_FIELD_AT(kv_status_record, offered, 32);
KV_FIELD_AT(kv_status_record, sent_bytes, 72);
KV_STATIC_ASSERT(sizeof(kv_status_record) == 80);

/** The whole library: carries out a command.
 * The exported symbol is the C++ name; in C the label binds the plain name to it.
 * @param command  one of kv_command
 * @param param    the command's record, read and written during the call only
 * @param size     the record's size in bytes, exactly
 * @return         one of kv_result; on failure nothing has changed. Any thread. */
#ifdef __cplusplus
int kv_Stream(int command, void* param, int size);
#else
int kv_Stream(int command, void* param, int size) __asm__("_Z9kv_StreamiPvi");
#endif

#endif /* KAVO_STREAM_H */
