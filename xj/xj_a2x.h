/* libxj_core: the streaming audio-to-keypoint model of a bundle.
 *
 * Mono float audio at 16000 Hz in, one 63-float keypoint row per video frame
 * (640 samples, 25 frames per second) out: the driver's own row and the same
 * row with the predicted delta added. Pushing only appends audio; xj_a2x_avail
 * and xj_a2x_pull run the models on the calling thread. Whatever sizes the
 * audio is pushed in, the rows come out the same.
 *
 * The speech encoder is shared by every handle of the process and named by
 * $W2V_ONNX (the 8 s window); the short-window pair is found beside it or
 * through $XJ_A2X_W2V_WIN_ONNX and $XJ_A2X_W2V_HEAD_ONNX.
 */
#ifndef XJ_XJ_A2X_H
#define XJ_XJ_A2X_H

#include <stddef.h>
#include <stdint.h>

#include "xj/xj.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct xj_a2x xj_a2x;

/* Opens the a2x members of a bundle. threads <= 0 means the library's count.
 * NULL on failure, with xj_a2x_last_error() saying why. */
XJ_API xj_a2x* xj_a2x_create(const char* bundle, int threads);
XJ_API void xj_a2x_destroy(xj_a2x* h);
/* This thread's last error of the xj_a2x family, "" when none. */
XJ_API const char* xj_a2x_last_error(void);

/* Rows of the driver's keypoint table xs_target.bin; 0 for NULL. */
XJ_API int xj_a2x_nt(const xj_a2x* h);
/* 1 when the band encoder has the second (wn) output. */
XJ_API int xj_a2x_width(const xj_a2x* h);

/* Begins an utterance. start < 0 continues the drive where it stands; dir < 0
 * walks the driver rows backwards; loop 0 bounces at the ends instead. */
XJ_API void xj_a2x_reset(xj_a2x* h, int start, int dir, int loop);
/* Accepted for a calling pattern shared with xj_motion; the cadence is fixed. */
XJ_API void xj_a2x_set_eager(xj_a2x* h, int n);
/* Appends n samples; returns 1. */
XJ_API int xj_a2x_push(xj_a2x* h, const float* pcm, int n);
/* The utterance's audio is complete: its tail is served at once. */
XJ_API void xj_a2x_finish(xj_a2x* h);
/* -1 before finish; after it, the utterance's frame count. */
XJ_API int xj_a2x_total(const xj_a2x* h);
/* Does at most one bounded step of work; returns the frames pullable now. */
XJ_API int xj_a2x_avail(xj_a2x* h);
/* Up to n frames: rows[k] the driver row index, xs[63k..] that row, xd[63k..]
 * the row plus the predicted delta. Returns the count given. */
XJ_API int xj_a2x_pull(xj_a2x* h, int32_t* rows, float* xs, float* xd, int n);
/* The same, and wn[k] the encoder's second output for the frame (0 without it). */
XJ_API int xj_a2x_pull_wn(xj_a2x* h, int32_t* rows, float* xs, float* xd, float* wn, int n);

/* Whole-utterance form, independent of the streaming state: 63 delta floats
 * per frame into out (cap frames of room). Returns the frame count, 0 for
 * n < 1, -2 when cap is too small, -1 on failure. */
XJ_API int xj_a2x_deltas(xj_a2x* h, const float* pcm, int n, float* out, int cap);
/* The same, and the second output into wn; -3 when the graph has none. */
XJ_API int xj_a2x_deltas_wn(xj_a2x* h, const float* pcm, int n, float* out, float* wn, int cap);

/* Opens the shared 8 s encoder now (path NULL or "": $W2V_ONNX); 1 when it stands. */
XJ_API int xj_a2x_preload_w2v(const char* path);
/* Always 1: the 8 s encoder is opened lazily. */
XJ_API int xj_a2x_w2v8_lazy(void);

#ifdef __cplusplus
}
#endif

#endif /* XJ_XJ_A2X_H */
