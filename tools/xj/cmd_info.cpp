// xj info B: what a bundle holds and whether it loads, in the library's own words.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bundle/xj_bundle.h"
#include "render/xj_ort.h"
#include "xj/xj.h"
#include "xj/xj_a2x.h"
#include "xj_main.h"

namespace {

int run(int argc, char** argv);

const xjtool::Command kInfo{"info", "B",
                            "shows what the bundle B (folder or container) holds: manifest values, members and "
                            "the name each was found under, graphs with their inputs, the audio model, and "
                            "whether it loads; fails when something is refused",
                            run};
const xjtool::Registration kRegistered(kInfo);

// Members a bundle may carry, by their first name; the other name is found too.
const char* const kMembers[] = {
    "manifest.json", "P.f16", "P_hevc.mov", "fs_red.f16", "pooled64.f16", "M.f32", "mask_512.u8", "drive/xs.f32",
    "drive/xd.f32", "drive/si.i32", "xs_target.bin", "target_frames", "target_frames.mp4", "a2x_meta.json",
    "a2x_pos.f32", "a2x_norm.f32", "a2x_enc_stream.onnx", "a2x_dec.onnx", "fca_stream.onnx",
    "audio_encoder_fp16.onnx", "audio_encoder_fp16_window_trunk.onnx", "audio_encoder_fp16_window_head.onnx"};

bool exists(const std::string& p) {
  struct stat st {};
  return stat(p.c_str(), &st) == 0;
}

std::vector<std::string> onnxFiles(const std::string& dir) {
  std::vector<std::string> out;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string n = e->d_name;
      if (n.size() > 5 && n.compare(n.size() - 5, 5, ".onnx") == 0) out.push_back(n);
    }
    closedir(d);
  }
  std::sort(out.begin(), out.end());
  return out;
}

std::string shapeText(const Ort::TypeInfo& info) {
  if (info.GetONNXType() != ONNX_TYPE_TENSOR) return "(not a tensor)";
  const auto t = info.GetTensorTypeAndShapeInfo();
  const std::vector<int64_t> dims = t.GetShape();
  std::vector<const char*> names(dims.size(), nullptr);
  if (!dims.empty()) t.GetSymbolicDimensions(names.data(), names.size());
  const auto type = t.GetElementType();
  std::string s = type == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16 ? "f16["
                  : type == ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT ? "f32["
                  : type == ONNX_TENSOR_ELEMENT_DATA_TYPE_INT64 ? "i64["
                                                                : "type" + std::to_string(type) + "[";
  for (size_t i = 0; i < dims.size(); ++i) {
    if (i) s += ",";
    s += dims[i] >= 0 ? std::to_string(dims[i]) : (names[i] && *names[i] ? names[i] : "?");
  }
  return s + "]";
}

// Prints the graph's inputs and outputs; false (with the runtime's reason) when it does not open.
bool describeGraph(Ort::Env& env, const std::string& path) {
  try {
    Ort::SessionOptions so;
    so.SetIntraOpNumThreads(1);
    so.SetGraphOptimizationLevel(ORT_DISABLE_ALL);
    Ort::Session s(env, path.c_str(), so);
    Ort::AllocatorWithDefaultOptions alloc;
    for (size_t i = 0; i < s.GetInputCount(); ++i)
      std::printf("    in  %-14s %s\n", s.GetInputNameAllocated(i, alloc).get(), shapeText(s.GetInputTypeInfo(i)).c_str());
    for (size_t i = 0; i < s.GetOutputCount(); ++i)
      std::printf("    out %-14s %s\n", s.GetOutputNameAllocated(i, alloc).get(),
                  shapeText(s.GetOutputTypeInfo(i)).c_str());
    return true;
  } catch (const std::exception& e) {
    std::printf("    does not open: %s\n", e.what());
    return false;
  }
}

int run(int argc, char** argv) {
  if (argc != 2) return xjtool::usage(kInfo);
  const std::string bundle = argv[1];
  if (!exists(bundle) && !exists(bundle + ".qvx")) return xjtool::fail(kInfo, "no such bundle: " + bundle);
  char buf[4096] = {};
  if (xj_bundle_resolve_handle(bundle.c_str(), buf, sizeof buf) != 1)
    return xjtool::fail(kInfo, std::string("cannot open bundle ") + bundle + ": " + xj_last_error());
  const std::string dir = buf;
  std::vector<std::string> refusals;
  std::printf("bundle  %s\nfolder  %s\n", bundle.c_str(), dir.c_str());

  std::printf("\nmanifest\n");
  try {
    const xj::Manifest m = xj::loadManifest(dir);
    std::printf("  agent %s\n  NT %d  frames %d  W %d  H %d  crop %d\n  paste space %dx%d  unsharp amount %g sigma %g "
                "ksize %d\n",
                m.agent.c_str(), m.NT, m.frames, m.W, m.H, m.crop, m.M_src_w, m.M_src_h, m.amount, m.sigma, m.ksize);
  } catch (const std::exception& e) {
    std::printf("  refused: %s\n", e.what());
    refusals.push_back(std::string("manifest: ") + e.what());
  }

  std::printf("\nmembers\n");
  for (const char* name : kMembers) {
    char path[4096] = {};
    const int r = xj_bundle_resolve_member(bundle.c_str(), name, path, sizeof path);
    const std::string found = path;
    const bool dirMember = exists(found) && !std::string(name).compare("target_frames");
    if (r == 1 || dirMember) {
      const std::string under = found.size() > dir.size() ? found.substr(dir.size() + 1) : found;
      std::printf("  %-38s found as %s\n", name, under.c_str());
    } else {
      const std::string other = xj::canonicalMember(name);
      std::printf("  %-38s absent%s\n", name, other != name ? (" (nor as " + other + ")").c_str() : "");
    }
  }

  std::printf("\ngraphs\n");
  xj::ortInit();
  Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "xj-info");
  std::vector<std::string> keys;
  for (const std::string& g : onnxFiles(dir)) {
    std::printf("  %s\n", g.c_str());
    if (!describeGraph(env, dir + "/" + g)) refusals.push_back(g + ": does not open");
    if (g.rfind("model_", 0) == 0) keys.push_back(g.substr(6, g.size() - 6 - 5));
  }

  std::printf("\naudio model\n");
  const bool a2x = exists(xj::resolveMember(dir, "a2x_enc_stream.onnx"));
  const bool fca = exists(dir + "/fca_stream.onnx");
  std::printf("  live session: %s\n  batch stream: %s\n",
              a2x ? "xj_a2x (a2x_enc_stream.onnx is present)" : "xj_motion, from the motion directory given",
              fca ? "xj_fca (fca_stream.onnx is present)" : "none (no fca_stream.onnx)");
  if (a2x) {
    const char* w2v = std::getenv("W2V_ONNX");
    const std::string own = dir + "/audio_encoder_fp16.onnx";
    if ((!w2v || !*w2v) && exists(own)) setenv("W2V_ONNX", own.c_str(), 1);
    w2v = std::getenv("W2V_ONNX");
    std::printf("  8 s speech encoder: %s\n", w2v && *w2v ? w2v : "(none: set W2V_ONNX)");
    if (xj_a2x* h = xj_a2x_create(dir.c_str(), 1)) {
      std::printf("  xj_a2x loads: %d driver rows\n", xj_a2x_nt(h));
      xj_a2x_destroy(h);
    } else {
      std::printf("  xj_a2x refused: %s\n", xj_a2x_last_error());
      refusals.push_back(std::string("xj_a2x: ") + xj_a2x_last_error());
    }
  }

  std::printf("\nloads\n");
  for (const std::string& key : keys) {
    xj_ctx* ctx = xj_create(bundle.c_str(), key.c_str(), 1, "");
    const float* crop = ctx && xj_drive_frames(ctx) > 0 ? xj_render_drive_crop(ctx, 0) : nullptr;
    if (ctx && (crop || xj_drive_frames(ctx) < 1)) {
      std::printf("  %-12s loads and renders\n", key.c_str());
    } else {
      std::printf("  %-12s refused: %s\n", key.c_str(), xj_last_error());
      refusals.push_back("model " + key + ": " + xj_last_error());
    }
    xj_destroy(ctx);
  }
  if (keys.empty()) {
    std::printf("  no director graph (model_<key>.onnx)\n");
    refusals.push_back("no director graph");
  }

  std::printf("\n%s\n", refusals.empty() ? "the bundle loads" : "refused:");
  for (const std::string& r : refusals) std::printf("  %s\n", r.c_str());
  return refusals.empty() ? 0 : 1;
}

}  // namespace
