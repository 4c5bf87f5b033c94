/** @file
 * Kavo Stream's status page: what a host's library is doing, for any process to read.
 *
 * With the environment variable KAVO_STREAM_STATUS=FILE the library keeps a file of
 * this layout and writes it in place, from KV_INIT on until it is unloaded; the file
 * stays behind, after a crash too. %p in the name stands for the process id. Only the
 * host's user can read it. kavo-stat prints it.
 *
 * Reading. Map or read the file whole. Check magic, version and size first: a page of
 * another version has another layout. Numbers are written one by one while you read:
 * each is whole, but two of them may be of different moments. A record that has a
 * sequence may be given to another stream or viewer meanwhile: read the sequence, the
 * record, and the sequence again; if it was odd or has changed, do it anew. Numbers are
 * in the machine's byte order, times in microseconds since 1970 (UTC), and counts begin
 * with the stream or viewer. Texts end with a NUL.
 */
#ifndef KAVO_STATUS_H
#define KAVO_STATUS_H

#include <stdint.h>

#define KV_STATUS_MAGIC "KAVOSTAT" /**< the first eight bytes, without a NUL */
#define KV_STATUS_VERSION 1        /**< of this layout */

/** How many records there are of each kind. Streams and viewers beyond are served all the
 * same and counted in kv_status_process, but have no record. */
enum {
  KV_STATUS_STREAMS = 256,  /**< kv_status_stream */
  KV_STATUS_VIEWERS = 4096, /**< kv_status_viewer */
  KV_STATUS_EVENTS = 256    /**< kv_status_event, the newest */
};

/** How a viewer's packets travel. */
enum kv_status_transport {
  KV_STATUS_UDP = 1, /**< RTP over UDP */
  KV_STATUS_TCP = 2  /**< interleaved in the RTSP connection */
};

/** What a viewer does. */
enum kv_status_state {
  KV_STATUS_NOBODY = 0,       /**< the record is free */
  KV_STATUS_SET_UP = 1,       /**< has not played yet */
  KV_STATUS_AWAITING_KEY = 2, /**< gets frames from the next key frame on */
  KV_STATUS_PLAYING = 3,      /**< gets every frame */
  KV_STATUS_PAUSED = 4        /**< paused, or another viewer took its ports */
};

/** What happened. */
enum kv_status_event_kind {
  KV_STATUS_JOINED = 1,    /**< a viewer plays; text: address and transport */
  KV_STATUS_LEFT = 2,      /**< a viewer is gone; text: address and why */
  KV_STATUS_DROPPED = 3,   /**< a viewer began to lose frames, because it is behind; text: address */
  KV_STATUS_PAUSE = 4,     /**< a viewer paused; text: address */
  KV_STATUS_KEY_FRAME = 5, /**< a viewer's wish made the next frame a key frame */
  KV_STATUS_REFUSED = 6,   /**< a connection or request was refused; text: address and why */
  KV_STATUS_NARROWED = 7,  /**< a viewer's path takes smaller packets; text: address and size */
  KV_STATUS_FAILED = 8     /**< a command failed; text: why */
};

/** The last command that failed. */
typedef struct kv_status_error {
  uint32_t sequence; /**< odd while the record is written; 0: none has failed */
  int32_t command;   /**< one of kv_command */
  int32_t result;    /**< one of kv_result */
  int32_t unused;    /**< 0 */
  uint64_t time;     /**< when */
  char text[104];    /**< why */
} kv_status_error;

/** The process and its server. */
typedef struct kv_status_process {
  char magic[8];              /**< KV_STATUS_MAGIC */
  uint32_t version;           /**< KV_STATUS_VERSION */
  uint32_t size;              /**< of the whole file, bytes */
  char library[16];           /**< the library's version, such as 2.0.0 */
  uint32_t pid;               /**< process id */
  uint32_t port;              /**< TCP port that is served; 0: none */
  uint64_t start;             /**< time of the first KV_INIT */
  uint64_t alive;             /**< time at which the library's thread last looked at its clock; it does each second */
  uint32_t connections;       /**< RTSP connections now */
  uint32_t connections_most;  /**< at any time */
  uint32_t sessions;          /**< RTSP sessions of clients now */
  uint32_t sessions_most;     /**< at any time */
  uint32_t streams;           /**< now, with and without a record */
  uint32_t viewers;           /**< now, with and without a record */
  uint64_t refused_limit;     /**< connections and requests beyond a limit, or for want of memory */
  uint64_t refused_address;   /**< connections from addresses that are not allowed */
  uint64_t refused_user;      /**< requests without a valid user and password */
  uint64_t events;            /**< that happened; the newest has this number */
  kv_status_error last_error; /**< the last command that failed */
} kv_status_process;

/** A stream. */
typedef struct kv_status_stream {
  uint32_t sequence;          /**< odd while the record changes hands */
  int32_t codec;              /**< one of kv_codec; 0: the record is free */
  char name[20];              /**< its session's */
  int32_t width;              /**< of the published frame, pixels */
  int32_t height;             /**< of the published frame, pixels */
  int32_t source_width;       /**< of the submitted frames, pixels */
  int32_t source_height;      /**< of the submitted frames, pixels */
  int32_t frame_rate;         /**< that the host announced, frames per second */
  int32_t bitrate;            /**< that the host asked for: bits per second (H.264) or frame (JPEG) */
  uint64_t since;             /**< time of its creation */
  uint64_t offered;           /**< frames that the host submitted */
  uint64_t dropped_unwatched; /**< of them: nobody watched */
  uint64_t dropped_full;      /**< of them: ten encoded frames were waiting */
  uint64_t encoded;           /**< of them: encoded and queued */
  uint64_t skipped;           /**< of them: left out by the encoder's rate control */
  uint64_t failed;            /**< of them: the encoder failed */
  uint64_t key_frames;        /**< H.264: encoded ones that are key frames */
  uint64_t key_frames_asked;  /**< H.264: those that viewers asked for */
  uint64_t bytes;             /**< of the encoded frames */
  uint64_t encoding;          /**< time that encoding took, microseconds */
  uint64_t sent;              /**< frames that left for at least one viewer */
  uint64_t newest;            /**< time at which the newest of them was submitted */
} kv_status_stream;

/** A viewer of a stream. */
typedef struct kv_status_viewer {
  uint32_t sequence;       /**< odd while the record changes hands */
  uint32_t state;          /**< one of kv_status_state */
  uint32_t transport;      /**< one of kv_status_transport */
  uint32_t stream;         /**< index of its kv_status_stream; KV_STATUS_STREAMS: that has no record */
  char address[56];        /**< such as 192.0.2.7:5000 or [2001:db8::7]:5000: RTP's over UDP, else the connection's */
  uint64_t since;          /**< time of its SETUP */
  uint64_t frames_sent;    /**< frames handed to the network for it */
  uint64_t frames_dropped; /**< frames that it missed because it was behind or waited for a key frame */
  uint64_t bytes_sent;     /**< of RTP packets */
  uint64_t report;         /**< time of its last receiver report; 0: none yet */
  uint32_t loss;           /**< fraction of packets lost lately, as it reports, in 1/256 */
  int32_t lost;            /**< packets lost in all, as it reports */
  uint32_t jitter;         /**< as it reports, microseconds */
  uint32_t round_trip;     /**< to it and back, microseconds; 0: not known yet */
} kv_status_viewer;

/** Something that happened. Event number n is at index n % KV_STATUS_EVENTS. */
typedef struct kv_status_event {
  uint64_t number; /**< from 1 on; 0 while the record is written. Read it before and after */
  uint64_t time;   /**< when */
  uint32_t kind;   /**< one of kv_status_event_kind */
  char stream[20]; /**< the session's name, or empty */
  char text[88];   /**< as the kind says */
} kv_status_event;

/** The whole file. */
typedef struct kv_status_page {
  kv_status_process process;                   /**< at 0 */
  kv_status_event events[KV_STATUS_EVENTS];    /**< a ring */
  kv_status_stream streams[KV_STATUS_STREAMS]; /**< in no order */
  kv_status_viewer viewers[KV_STATUS_VIEWERS]; /**< in no order */
} kv_status_page;

#endif /* KAVO_STATUS_H */
