/* The public header compiles as strict C99 and its declarations are usable from C. */
#include <xj/xj.h>
#include <stddef.h>

int xj_header_c99_check(void) {
  xj_ctx* h = xj_create("bundle", "b1", 0, NULL);
  const float* crop = h ? xj_render_drive_crop(h, 0) : NULL;
  int rows = xj_host_kp_rows() + xj_nt(h) + xj_width(h) + xj_height(h) + xj_crop(h) + xj_drive_frames(h);
  const char* e = xj_last_error();
  (void)xj_render_kp_crop;
  xj_destroy(h);
  return rows + (crop != NULL) + (e != NULL);
}
