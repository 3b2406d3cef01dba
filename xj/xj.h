/* libxj_core: speech audio to a talking-head video, on the CPU.
 *
 * The public C surface. Plain C99 with opaque handles: a creator returns
 * NULL on failure, a destroyer accepts NULL. Every family keeps its own
 * per-thread error text; an entry point clears it on entry, so a text read
 * after a successful call is "". Read the error on the thread that got it.
 */
#ifndef XJ_XJ_H
#define XJ_XJ_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#  define XJ_API
#elif defined(XJ_BUILDING_LIBRARY)
#  define XJ_API __attribute__((visibility("default")))
#else
#  define XJ_API
#endif

#ifdef __cplusplus
namespace xj {
/* Keypoint rows the host feeds the director: 21 rows of x, y, z. */
constexpr int kHostKpRows = 21;
}  // namespace xj
extern "C" {
#endif

/* ---- engine handle and crop entry points ------------------------------ */

/* One opened bundle: manifest, identity, keypoint tables and, from the first
 * render on, the director. Used by one thread at a time. */
typedef struct xj_ctx xj_ctx;

/* Opens the bundle at bundle_dir with the director graph "model_<model_key>.onnx".
 * threads <= 0 lets the library size the director; ep "" or NULL is the ONNX
 * Runtime CPU provider. NULL on failure, with xj_last_error() saying why. */
XJ_API xj_ctx* xj_create(const char* bundle_dir, const char* model_key, int threads, const char* ep);
XJ_API void xj_destroy(xj_ctx* h);
/* This thread's last error of the xj_ family, "" when none. */
XJ_API const char* xj_last_error(void);

/* 21: the keypoint rows of every ks/kd row (63 floats). */
XJ_API int xj_host_kp_rows(void);
XJ_API int xj_nt(const xj_ctx* h);
XJ_API int xj_width(const xj_ctx* h);
XJ_API int xj_height(const xj_ctx* h);
XJ_API int xj_crop(const xj_ctx* h);
XJ_API int xj_drive_frames(const xj_ctx* h);

/* Renders the crop of source frame si driven from ks to kd (63 floats each).
 * Returns crop*crop*3 floats as planes R, G, B, owned by the handle and valid
 * until the next render on it; NULL on failure. */
XJ_API const float* xj_render_kp_crop(xj_ctx* h, int si, const float* ks, const float* kd);
/* The crop of row i of the bundle's idle keypoint tables. */
XJ_API const float* xj_render_drive_crop(xj_ctx* h, int i);

/* ---- whole frames ---- */

/* Pastes a crop (crop*crop*3 floats, planes R, G, B on 0..1) of source frame
 * si onto that frame's driver frame, written to out as W*H*3 bytes of RGB
 * (out_bytes at least that). 1, or 0 with xj_last_error() saying why. */
XJ_API int xj_paste_crop(xj_ctx* h, int si, const float* crop, uint8_t* out, size_t out_bytes);
/* Pastes the last rendered crop onto driver frame si, in a canvas the handle
 * owns: W*H*3 bytes of RGB, valid until the next paste on the handle. NULL
 * before any render, or on failure. */
XJ_API const uint8_t* xj_paste_last(xj_ctx* h, int si);
/* Renders as xj_render_kp_crop, pastes as xj_paste_last and writes the frame
 * as W*H*4 bytes of RGBA (alpha 255) to out. 1, or 0 on failure. */
XJ_API int xj_render_kp_rgba(xj_ctx* h, int si, const float* ks, const float* kd, uint8_t* out, size_t out_bytes);
/* The same for row i of the idle tables, pasted onto its own source frame. */
XJ_API int xj_render_drive_rgba(xj_ctx* h, int i, uint8_t* out, size_t out_bytes);
/* Driver frame i as it stands, W*H*3 bytes of RGB, without a copy: valid
 * until the driver ring has moved on (at least 11 later frames). */
XJ_API const uint8_t* xj_target_frame(xj_ctx* h, int i);

/* ---- bundle members and prior rows ---- */

/* Writes the directory the bundle's members are read from (a container named
 * by bundle, with or without its ".qvx", is unwrapped first) with its NUL to
 * out. 1 on success; -1 for a NULL argument or cap 0 (no text), a buffer too
 * small or a failed unwrap (xj_last_error() says which; out is ""). */
XJ_API int xj_bundle_resolve_handle(const char* bundle, char* out, size_t cap);
/* Writes the path of member name (either spelling) of the bundle to out.
 * 1 when the file opens for reading, 0 when it doesn't (out still names it),
 * -1 for unusable arguments, a buffer too small or a failed unwrap. Neither
 * sets nor clears xj_last_error(). */
XJ_API int xj_bundle_resolve_member(const char* bundle, const char* name, char* out, size_t cap);

/* The bundle's prior video, played row by row without an engine handle.
 * One caller at a time. */
typedef struct xj_prior xj_prior;

/* look_ahead < 1 means 2, history < 0 means 0. NULL on failure, with
 * xj_last_error() saying why. */
XJ_API xj_prior* xj_prior_open(const char* bundle_dir, int look_ahead, int history);
/* Bytes of one row: crop*crop*3 binary16 values as planes R, G, B. 0 for NULL. */
XJ_API size_t xj_prior_row_bytes(const xj_prior* p);
/* Copies row i to out (cap bytes); blocks until it is decoded. 1, or 0 with
 * xj_last_error() saying why. */
XJ_API int xj_prior_row(xj_prior* p, int i, uint8_t* out, size_t cap);
/* The decoder's description, valid until xj_prior_close; "" for NULL. */
XJ_API const char* xj_prior_backend(const xj_prior* p);
XJ_API void xj_prior_close(xj_prior* p);

/* ---- whole-utterance audio model ------------------------------------- */

/* One 63-float delta row per video frame (640 samples at 16000 Hz) for a whole
 * utterance, in one call; nothing is carried between calls. */
typedef struct xj_fca xj_fca;

/* encoder_path: the 8 s speech encoder; stream_path: the bundle's fca_stream.onnx.
 * NULL on failure, with xj_fca_last_error() saying why. */
XJ_API xj_fca* xj_fca_create(const char* encoder_path, const char* stream_path, int threads);
XJ_API void xj_fca_destroy(xj_fca* f);
XJ_API const char* xj_fca_last_error(void);
/* Rows written: n over 640 rounded up; 0 for n < 1; -1 when cap is smaller
 * (no text) or on failure (with text). */
XJ_API int xj_fca_deltas(xj_fca* f, const float* pcm, int n, float* out, int cap);

/* ---- live utterance session ------------------------------------------ */

/* A session on an engine handle: the host pushes 16-bit PCM at 16000 Hz
 * whenever it has some and pulls whole RGB frames at its own rate, for ever.
 * Between utterances the driver video plays idle. The engine handle must
 * outlive the session and is used only by it while it runs. */
typedef struct xj_utt xj_utt;

typedef struct xj_utt_opts {
  const char* motion_dir;   /* required: the audio model's bundle (xj_a2x when it has
                               a2x_enc_stream.onnx, else xj_motion) */
  int threads;              /* audio model threads; 0: the engine handle's */
  const char* ep;           /* execution provider of xj_motion; NULL: CPU */
  const char* steady_model; /* key of the chunk renderer; NULL: "b24_fp32"; "-": none */
  int eager;                /* audio model eagerness; -2: hybrid; below 1: unset */
  double gap_s;             /* silence that ends an utterance; 0: 0.6 s; negative: never */
  int ramp_end;             /* ramp frames after an utterance; 0: 6 */
  int ramp_interrupt;       /* ramp frames after an interrupt; 0: 4 */
} xj_utt_opts;

typedef struct xj_utt_frame_info {
  uint64_t seq; /* counts published frames from 0 */
  int kind;     /* 0 idle, 1 speech, 2 ramp */
  int si;       /* source frame index */
  int index;    /* frame number within its utterance, or -1 */
} xj_utt_frame_info;

typedef struct xj_utt_stats {
  uint64_t frames;        /* pulled */
  uint64_t speech_frames; /* pulled with kind 1 */
  uint64_t utterances;    /* with a first speech frame published */
  double first_frame_ms;  /* last utterance: first push to first speech frame published */
  double render_ms;       /* moving average of a frame's render stage */
  int state;              /* 0 idle, 1 onset, 2 speaking, 3 ramp */
} xj_utt_stats;

XJ_API xj_utt* xj_utt_create(xj_ctx* ctx, const xj_utt_opts* opts);
/* xj_utt_create with every other option 0. */
XJ_API xj_utt* xj_utt_open(xj_ctx* ctx, const char* motion_dir);
XJ_API void xj_utt_destroy(xj_utt* u);
XJ_API const char* xj_utt_last_error(void);
/* 1 ready, 0 still warming, -1 when the audio model failed to load (the reason
 * becomes this thread's error). */
XJ_API int xj_utt_ready(xj_utt* u);
XJ_API int xj_utt_push_audio(xj_utt* u, const int16_t* pcm, int n);
XJ_API void xj_utt_end_utterance(xj_utt* u);
/* Drops what the host has not pulled; the face ramps back from what it last showed. */
XJ_API void xj_utt_interrupt(xj_utt* u);
XJ_API int xj_utt_frames_available(xj_utt* u);
/* Copies the oldest frame (W*H*3 bytes) into rgb: 1, or 0 when none is ready. */
XJ_API int xj_utt_pull_frame(xj_utt* u, uint8_t* rgb, size_t cap, xj_utt_frame_info* info);
XJ_API void xj_utt_get_stats(xj_utt* u, xj_utt_stats* out);
/* 0, or -1 once a fatal render failure happened; text gets the last failure. */
XJ_API int xj_utt_render_status(xj_utt* u, char* text, int cap, uint64_t* count);

/* ---- batch stream ------------------------------------------------------ */

/* A whole utterance to video frames, in order, as fast as the machine renders:
 * one render thread beside the caller's thread, which pastes and calls back. */
typedef struct xj_stream xj_stream;
typedef void (*xj_stream_frame_fn)(void* user, int frame, const uint8_t* rgb, int w, int h);

/* Opens bundle_dir with the director "model_render.onnx" and the audio model
 * of encoder_path and the bundle's fca_stream.onnx. skip drops frames from the
 * start of the output; gain scales the predicted motion. */
XJ_API xj_stream* xj_stream_create(const char* bundle_dir, const char* encoder_path, int threads, int skip,
                                   float gain);
/* n samples of 16 kHz float audio; cb (may be NULL) gets each frame, valid
 * during the call only. Returns the frames delivered, or -1. */
XJ_API int xj_stream_run(xj_stream* s, const float* pcm, int n, xj_stream_frame_fn cb, void* user);
XJ_API void xj_stream_destroy(xj_stream* s);
XJ_API int xj_stream_width(xj_stream* s);
XJ_API int xj_stream_height(xj_stream* s);
XJ_API const char* xj_stream_last_error(void);

/* ---- telemetry -------------------------------------------------------- */

/* The host's POST function. path is "/v1/telemetry/ingest" (the host adds its
 * endpoint), body the NUL-terminated JSON to send; response is a zero-filled
 * buffer of response_cap bytes the function may fill with the reply. Returns
 * the HTTP status, or a negative value if the request could not be made. */
typedef int (*xj_tel_post_fn)(void* user, const char* path, const char* body, char* response,
                              size_t response_cap);

/* Stores a number under key, replacing the previous one. NULL or "" key: ignored. */
XJ_API void xj_tel_record(const char* key, double value);
/* Stores a text under key, replacing the previous one. NULL or "" key, or a
 * NULL value: ignored; "" is stored. "model_key" and "device_model" have
 * places of their own in a snapshot. */
XJ_API void xj_tel_record_str(const char* key, const char* value);
/* {"queued":N,"snapshot":S}: the count of undelivered snapshots and a fresh
 * one, which is not queued. Valid until this thread calls it again. */
XJ_API const char* xj_tel_pending_json(void);
/* Queues a snapshot (at most 256 are kept, oldest dropped) and posts the whole
 * queue as {"batch":[...]}, without holding any lock during the call.
 * 0: the endpoint answered 200 and the queue is empty; -2: no transport, or it
 * returned a negative value; -3: another status. On -2 and -3 the queue stays. */
XJ_API int xj_tel_flush(void);
/* Installs the POST function and its user pointer; fn NULL removes it. */
XJ_API void xj_tel_set_transport(xj_tel_post_fn fn, void* user);

/* ---- motion model ---- */

/* Audio (mono float, 16 kHz) to keypoint rows, from a motion directory.
 * Per utterance: reset, push any number of times, avail and pull as frames
 * are wanted, finish, then pull until xj_motion_total frames have left.
 * avail and pull run the model on the calling thread. One thread at a time. */
typedef struct xj_motion xj_motion;

/* threads < 1: the library's thread count. ep NULL or "": the CPU. */
XJ_API xj_motion* xj_motion_create(const char* motion_dir, int threads, const char* ep);
XJ_API void xj_motion_destroy(xj_motion* m);
/* This thread's last error of the xj_motion_ family, "" when none. */
XJ_API const char* xj_motion_last_error(void);
/* Rows of the driver tables; 0 for NULL. */
XJ_API int xj_motion_nt(const xj_motion* m);
/* Starts an utterance: driver row start (clamped), stepping by dir < 0 ? -1 : +1,
 * cycling when loop is nonzero, else bouncing at the ends. */
XJ_API void xj_motion_reset(xj_motion* m, int start, int dir, int loop);
/* 0: frames leave once their generator chunk is complete (3.28 s of audio for
 * the first). > 0: speculative passes every that many frames; < 0: as often as
 * their measured cost allows. Kept across resets. */
XJ_API void xj_motion_set_eager(xj_motion* m, int eager);
/* Appends count samples. 1, or 0 for bad arguments or a finished utterance. */
XJ_API int xj_motion_push(xj_motion* m, const float* samples, int count);
/* Ends the utterance's audio; a second call does nothing. */
XJ_API void xj_motion_finish(xj_motion* m);
/* Frames ready to pull, 0 on failure. */
XJ_API int xj_motion_avail(xj_motion* m);
/* Up to n frames: rows[k] (rows may be NULL) the driver row of frame k, and
 * 63 floats each of xs (that row's keypoints) and xd (the driven keypoints).
 * Returns the frames written, 0 on failure. Frames that left are never revised. */
XJ_API int xj_motion_pull(xj_motion* m, int* rows, float* xs, float* xd, int n);
/* The utterance's frame count once finished, else -1. */
XJ_API int xj_motion_total(const xj_motion* m);

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* XJ_XJ_H */
