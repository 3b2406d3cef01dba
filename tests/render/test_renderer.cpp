// The director session: crops against an independent computation, batch
// padding, the load-time contract checks.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "bundle/xj_bundle.h"
#include "ref_director.h"
#include "render/xj_renderer.h"
#include "xj_testutil.h"

namespace {

const char kEm[] = "\xE2\x80\x94";

struct Loaded {
  xj::Manifest m;
  xj::Identity id;
  explicit Loaded(const std::string& dir) : m(xj::loadManifest(dir)), id(m) {}
};

std::vector<float> randomKp(std::mt19937& rng, float spread) {
  std::uniform_real_distribution<float> u(-spread, spread);
  std::vector<float> k(63);
  for (float& v : k) v = u(rng);
  return k;
}

std::string loadError(const std::string& dir, const std::string& key, const std::string& ep = "") {
  try {
    Loaded b(dir);
    xj::Renderer r(b.m, b.id, key, 1, ep);
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

struct CropCase {
  const char* name;
  const char* fixture;
  const char* key;
  bool featSynth;
  bool sameKeypoints;
  int n;  // samples per call
};

void PrintTo(const CropCase& c, std::ostream* os) { *os << c.name; }

class RenderedCrop : public ::testing::TestWithParam<CropCase> {};

TEST_P(RenderedCrop, AgreesWithIndependentComputation) {
  const CropCase& c = GetParam();
  const std::string dir = xjtest::fixture(c.fixture);
  Loaded b(dir);
  xj::Renderer r(b.m, b.id, c.key, 1, "");
  ASSERT_GE(r.batch(), c.n);
  std::mt19937 rng(7);
  for (int round = 0; round < 2; ++round) {
    std::vector<int> si(c.n);
    std::vector<float> ks, kd;
    for (int i = 0; i < c.n; ++i) {
      si[i] = (round + 2 * i) % b.m.NT;
      const auto s = randomKp(rng, 0.3f);
      const auto d = c.sameKeypoints ? s : randomKp(rng, 0.6f);
      ks.insert(ks.end(), s.begin(), s.end());
      kd.insert(kd.end(), d.begin(), d.end());
    }
    const float* out = r.render(si.data(), ks.data(), kd.data(), c.n);
    const size_t elems = static_cast<size_t>(b.m.crop) * b.m.crop * 3;
    for (int i = 0; i < c.n; ++i) {
      const float* k0 = ks.data() + 63 * i;
      const float* k1 = kd.data() + 63 * i;
      const auto want = c.featSynth ? refdir::featSynthCrop(dir, b.m.crop, si[i], k0, k1)
                                    : refdir::plainCrop(dir, b.m.crop, si[i], k0, k1);
      EXPECT_LT(refdir::maxAbsDiff(out + elems * i, want), 1e-4) << "round " << round << " sample " << i;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Director, RenderedCrop,
    ::testing::Values(CropCase{"Batch1SameKp", "basic", "b1", false, true, 1},
                      CropCase{"Batch1MovedKp", "basic", "b1", false, false, 1},
                      CropCase{"Batch4PaddedFromOne", "basic", "b4", false, false, 1},
                      CropCase{"Batch4PaddedFromThree", "basic", "b4", false, false, 3},
                      CropCase{"Batch4Full", "basic", "b4", false, false, 4},
                      CropCase{"DynamicRows", "basic", "dyn", false, false, 1},
                      CropCase{"CanonicalLayout", "canonical", "b4", false, false, 2},
                      CropCase{"FeatSynth1", "featsynth", "fs1", true, false, 1},
                      CropCase{"FeatSynth4Padded", "featsynth", "fs4", true, false, 3}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Renderer, PaddedSlotsRepeatTheLastSampleWhateverCameBefore) {
  Loaded b(xjtest::fixture("basic"));
  xj::Renderer r(b.m, b.id, "b4", 1, "");
  ASSERT_EQ(r.batch(), 4);
  std::mt19937 rng(3);
  std::vector<float> ks, kd;
  for (int i = 0; i < 4; ++i) {
    const auto s = randomKp(rng, 0.3f), d = randomKp(rng, 0.6f);
    ks.insert(ks.end(), s.begin(), s.end());
    kd.insert(kd.end(), d.begin(), d.end());
  }
  const int four[4] = {0, 1, 2, 0};
  r.render(four, ks.data(), kd.data(), 4);
  const int two[2] = {2, 1};
  const float* out = r.render(two, ks.data(), kd.data(), 2);
  const size_t elems = 16 * 16 * 3;
  const std::vector<float> slot1(out + elems, out + 2 * elems);
  for (int s = 2; s < 4; ++s) EXPECT_EQ(std::vector<float>(out + s * elems, out + (s + 1) * elems), slot1);
  // The first two slots are what a fresh renderer gives.
  xj::Renderer fresh(b.m, b.id, "b4", 1, "");
  const float* f = fresh.render(two, ks.data(), kd.data(), 2);
  EXPECT_EQ(std::vector<float>(f, f + 2 * elems), std::vector<float>(out, out + 2 * elems));
}

TEST(Renderer, BadCountRefusesAndWritesNothing) {
  Loaded b(xjtest::fixture("basic"));
  xj::Renderer r(b.m, b.id, "b4", 1, "");
  const std::vector<float> k(63 * 5, 0.1f);
  const int si[5] = {0, 1, 2, 0, 1};
  const float* out = r.render(si, k.data(), k.data(), 1);
  const std::vector<float> before(out, out + 4 * 16 * 16 * 3);
  for (int n : {0, -1, 5}) {
    try {
      r.render(si, k.data(), k.data(), n);
      ADD_FAILURE() << "n=" << n << " rendered";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "render: bad n");
    }
  }
  EXPECT_EQ(std::vector<float>(out, out + before.size()), before);
}

TEST(Renderer, SourceAndDrivenLandOnTheirInputs) {
  // Swapping ks and kd negates the displacement: a different crop unless they agree.
  Loaded b(xjtest::fixture("basic"));
  xj::Renderer r(b.m, b.id, "b1", 1, "");
  std::mt19937 rng(11);
  const auto ks = randomKp(rng, 0.2f), kd = randomKp(rng, 0.8f);
  const int si = 1;
  const float* out = r.render(&si, ks.data(), kd.data(), 1);
  const auto want = refdir::plainCrop(b.m.dir, 16, si, ks.data(), kd.data());
  const auto swapped = refdir::plainCrop(b.m.dir, 16, si, kd.data(), ks.data());
  EXPECT_LT(refdir::maxAbsDiff(out, want), 1e-4);
  EXPECT_GT(refdir::maxAbsDiff(out, swapped), 1e-2);
}

TEST(Renderer, ReportsItsBackend) {
  Loaded b(xjtest::fixture("basic"));
  xj::Renderer r(b.m, b.id, "b1", 0, "");
  EXPECT_STREQ(r.ep(), "cpu");
  EXPECT_STREQ(r.backend(), "ort");
  EXPECT_STREQ(r.directorNote(), "");
}

std::string contractMsg(const std::string& model, const char* input, int rows, bool widthRow) {
  std::string s = "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + model + " " + kEm + " the graph declares " + input +
                  " with " + std::to_string(rows) + " keypoint rows, and this renderer feeds 21 (xj::kHostKpRows, " +
                  "xj/xj). ";
  if (widthRow) {
    s += "That is the recipe_v4 / kd_v4 shape: row 21 is the WIDTH ROW (wn, seal, 0), fed from the a2x encoder's "
         "second output. This engine has no width feed (see xj_a2x_width / xj_a2x_pull_wn in xj/xj_a2x, which "
         "nothing on this path calls yet), so it cannot drive this director. ";
  }
  return s + "REFUSING AT LOAD rather than dying inside ORT at the first Run. This build must not have been "
             "published to a host that links this renderer: training/recipe/host_kp_contract is the publish gate "
             "that exists to prevent it.";
}

TEST(RendererLoad, Refusals) {
  const std::string basic = xjtest::fixture("basic");
  const std::string feat = xjtest::fixture("featsynth");
  struct {
    std::string dir, key, ep, message;
  } cases[] = {
      {basic, "r20", "", contractMsg(basic + "/model_r20.onnx", "kp_driving", 20, false)},
      {basic, "r22", "", contractMsg(basic + "/model_r22.onnx", "kp_driving", 22, true)},
      {basic, "nobatch", "", "pooled64 input not found / bad shape"},
      {basic, "dynbatch", "", "pooled64 input not found / bad shape"},
      {basic, "b1", "cpu", "Renderer: unknown ep 'cpu'"},
      {basic, "b1", "CoreML", "Renderer: unknown ep 'CoreML'"},
      {basic, "b1", "xnnpack-fp16",
       std::string("Renderer: ep 'xnnpack-fp16' is REFUSED. This renderer rewrites its graph to Veltrona custom-domain "
                   "nodes (com.veltrona::GridSampleFast, and com.veltrona::WarpDirector wherever XJ_WARP_NODE is "
                   "on), and ORT's XNNPACK execution provider SEGFAULTS while partitioning a graph that carries them ") +
           kEm +
           " measured 2026-09-15 on a published quillon2-android AAR, null deref inside libonnxruntime.so at session "
           "create, on both a door-served and a hand-staged copy of the same identity. It is a signal, not an "
           "exception, so it cannot be caught and reported. Use the default ep (\"\", the ORT CPU EP), which opens "
           "the same bundle on the same bytes."},
      {feat, "b1", "",
       std::string("m4b graph (P_rgb input) but this bundle carries no warp prior: neither P.f16, nor fs_red.f16, nor "
                   "a P_hevc.mov to play in place is present, so xj::Identity mapped NOTHING and Identity::P(si) "
                   "would be an offset from a null pointer ") +
           kEm + " a SEGFAULT on the first frame, not a refusal. REFUSING to create a session."},
  };
  for (const auto& c : cases) EXPECT_EQ(loadError(c.dir, c.key, c.ep), c.message) << c.key << " ep=" << c.ep;
}

TEST(RendererLoad, FeatSynthGraphNeedsTheFeatureMap) {
  xjtest::TempDir t;
  const std::string dir = t / "b";
  xjtest::copyTree(xjtest::fixture("basic"), dir);
  xjtest::writeFile(dir + "/model_fs1.onnx", xjtest::readFile(xjtest::fixture("featsynth") + "/model_fs1.onnx"));
  EXPECT_EQ(loadError(dir, "fs1"), "FeatSynth graph but bundle lacks fs_red.f16");
}

}  // namespace
