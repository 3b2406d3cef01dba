// Still images through stb: JPEG driver frames in, PNG debugging dumps out.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace xj {

// An 8-bit image, rows packed, channels interleaved.
struct ImageRGB {
  int width = 0;
  int height = 0;
  std::vector<uint8_t> pixels;  // width * height * 3
};

// Decodes the file at path to three channels into out, reusing its storage.
// Throws std::runtime_error("decode failed: " + path) when stb cannot read it.
void loadImageRGB(const std::string& path, ImageRGB& out);

// Writes width x height pixels of `channels` (1 to 4) interleaved bytes, rows
// packed. Throws std::runtime_error("write failed: " + path). A debugging aid.
void writePNG(const std::string& path, const uint8_t* pixels, int width, int height, int channels);

}  // namespace xj
