/* libxj_core: speech audio to a talking-head video, on the CPU.
 *
 * The public C surface. Plain C99 with opaque handles: a creator returns
 * NULL on failure, a destroyer accepts NULL. Every family keeps its own
 * per-thread error text; an entry point clears it on entry, so a text read
 * after a successful call is "". Read the error on the thread that got it.
 */
#ifndef XJ_XJ_H
#define XJ_XJ_H

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

#ifdef __cplusplus
}  /* extern "C" */
#endif

#endif /* XJ_XJ_H */
