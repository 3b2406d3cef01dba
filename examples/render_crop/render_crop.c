/* A host of libxj_core in plain C: opens a bundle, renders the crop of one
 * idle frame and writes it as a PNG.
 *
 *   render_crop BUNDLE_DIR MODEL_KEY OUT.png [DRIVE_ROW]
 */
#include <stdio.h>
#include <stdlib.h>

#include <stb_image_write.h>
#include <xj/xj.h>

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s BUNDLE_DIR MODEL_KEY OUT.png [DRIVE_ROW]\n", argv[0]);
    return 2;
  }
  const int row = argc > 4 ? atoi(argv[4]) : 0;
  xj_ctx* h = xj_create(argv[1], argv[2], 0, NULL);
  if (!h) {
    fprintf(stderr, "render_crop: %s\n", xj_last_error());
    return 1;
  }
  printf("bundle: %d source frames, canvas %dx%d, crop %d, %d idle frames\n", xj_nt(h), xj_width(h), xj_height(h),
         xj_crop(h), xj_drive_frames(h));
  const float* crop = xj_render_drive_crop(h, row);
  if (!crop) {
    fprintf(stderr, "render_crop: %s\n", xj_last_error());
    xj_destroy(h);
    return 1;
  }
  /* Planar float RGB in [0, 1] to interleaved bytes. */
  const int c = xj_crop(h);
  const size_t plane = (size_t)c * (size_t)c;
  unsigned char* rgb = malloc(plane * 3);
  for (size_t i = 0; i < plane; ++i)
    for (int ch = 0; ch < 3; ++ch) {
      float v = crop[ch * plane + i] * 255.0f + 0.5f;
      rgb[3 * i + ch] = (unsigned char)(v < 0 ? 0 : v > 255 ? 255 : v);
    }
  const int ok = stbi_write_png(argv[3], c, c, 3, rgb, c * 3);
  free(rgb);
  xj_destroy(h);
  if (!ok) {
    fprintf(stderr, "render_crop: cannot write %s\n", argv[3]);
    return 1;
  }
  printf("wrote %s (%dx%d)\n", argv[3], c, c);
  return 0;
}
