#include "image/xj_image.h"

#include <cstring>
#include <memory>
#include <stdexcept>

// The one translation unit that holds the stb decoders and the PNG writer.
// STATIC keeps their symbols private to this file, so nothing clashes with a
// host that links its own copy.
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image.h>
#include <stb_image_write.h>

namespace xj {

void loadImageRGB(const std::string& path, ImageRGB& out) {
  int w = 0, h = 0, n = 0;
  std::unique_ptr<stbi_uc, void (*)(void*)> data(stbi_load(path.c_str(), &w, &h, &n, 3), stbi_image_free);
  if (!data || w <= 0 || h <= 0) throw std::runtime_error("decode failed: " + path);
  const size_t bytes = static_cast<size_t>(w) * static_cast<size_t>(h) * 3;
  out.width = w;
  out.height = h;
  out.pixels.resize(bytes);
  std::memcpy(out.pixels.data(), data.get(), bytes);
}

void writePNG(const std::string& path, const uint8_t* pixels, int width, int height, int channels) {
  if (!pixels || width <= 0 || height <= 0 || channels < 1 || channels > 4 ||
      !stbi_write_png(path.c_str(), width, height, channels, pixels, width * channels)) {
    throw std::runtime_error("write failed: " + path);
  }
}

}  // namespace xj
