// Bundles through the C surface: where a bundle and its members lie after an
// unwrap, a packed bundle rendering exactly like its folder, and the prior
// video played row by row.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bundle/xj_bundle.h"
#include "bundle/xj_qvx.h"
#include "capi/xj_capi_bundle.h"
#include "driver/xj_driver.h"
#include "driver_testutil.h"
#include "qvx_testutil.h"
#include "xj/xj.h"
#include "xj_testutil.h"

namespace {

// Leaves a known text in this thread's error, to see who clears it.
void presetError() {
  EXPECT_EQ(xj_create(nullptr, nullptr, 0, nullptr), nullptr);
  ASSERT_STREQ(xj_last_error(), "xj_create: NULL bundle_dir/model_key");
}

bool haveFixture(const std::string& name) { return qvxtest::isDir(xjtest::fixture(name)); }

}  // namespace

TEST(BundleResolveHandle, ArgumentsAndBufferSize) {
  const std::string basic = xjtest::fixture("basic");
  std::vector<char> out(basic.size() + 8, 'z');
  presetError();
  EXPECT_EQ(xj_bundle_resolve_handle(nullptr, out.data(), out.size()), -1);
  EXPECT_STREQ(xj_last_error(), "");
  presetError();
  EXPECT_EQ(xj_bundle_resolve_handle(basic.c_str(), nullptr, 100), -1);
  EXPECT_STREQ(xj_last_error(), "");
  EXPECT_EQ(xj_bundle_resolve_handle(basic.c_str(), out.data(), 0), -1);
  EXPECT_EQ(out[0], 'z');  // nothing written with no room at all

  // No room for the NUL: refused, out emptied.
  presetError();
  EXPECT_EQ(xj_bundle_resolve_handle(basic.c_str(), out.data(), basic.size()), -1);
  EXPECT_EQ(out[0], '\0');
  EXPECT_STREQ(xj_last_error(), "xj_bundle_resolve_handle: buffer too small");
  EXPECT_EQ(xj_bundle_resolve_handle(basic.c_str(), out.data(), basic.size() + 1), 1);
  EXPECT_EQ(std::string(out.data()), basic);
  EXPECT_STREQ(xj_last_error(), "");
}

TEST(BundleResolveHandle, ContainerAndFailedUnwrap) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "u").c_str());
  xjtest::writeFile(tmp / "good.qvx", qvxtest::container({{"m", "1"}}));
  char out[4096];
  // Named without its extension: the container beside it is found.
  EXPECT_EQ(xj_bundle_resolve_handle((tmp / "good").c_str(), out, sizeof out), 1);
  EXPECT_EQ(std::string(out), tmp / "u/good.xjbundle");
  EXPECT_EQ(xjtest::readFile(tmp / "u/good.xjbundle/m"), "1");

  xjtest::writeFile(tmp / "bad.qvx", qvxtest::container({{"m", "1"}, {"../evil", "2"}}));
  std::memset(out, 'z', sizeof out);
  EXPECT_EQ(xj_bundle_resolve_handle((tmp / "bad.qvx").c_str(), out, sizeof out), -1);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(std::string(xj_last_error()),
            "xj_bundle_resolve_handle: " + tmp / "bad.qvx" + ": refusing unsafe member name '../evil'");
  EXPECT_FALSE(qvxtest::exists(tmp / "u/evil"));
  EXPECT_FALSE(qvxtest::exists(tmp / "evil"));
}

TEST(BundleResolveMember, EitherSpellingAndMissingMembers) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "u").c_str());
  xj::qvx::writeQvx(xjtest::fixture("canonical"), tmp / "canonical.qvx");
  struct Case {
    std::string bundle, name, path;
    int result;
  };
  const std::string basic = xjtest::fixture("basic");
  const std::string canonical = xjtest::fixture("canonical");
  const std::string feat = xjtest::fixture("featsynth");
  const std::vector<Case> cases = {
      {basic, "P.f16", basic + "/P.f16", 1},
      {basic, "drive/si.i32", basic + "/drive/si.i32", 1},
      {basic, "model_b4.onnx", basic + "/model_b4.onnx", 1},
      {basic, "absent.bin", basic + "/absent.bin", 0},
      {canonical, "P.f16", canonical + "/source_frames.f16", 1},
      {canonical, "drive/xs.f32", canonical + "/idle_loop/source_keypoints.f32", 1},
      {canonical, "model_b1.onnx", canonical + "/render_model.batch1.onnx", 1},
      {canonical, "source_frames.f16", canonical + "/source_frames.f16", 1},
      {feat, "P.f16", feat + "/P.f16", 0},
      {feat, "fs_red.f16", feat + "/fs_red.f16", 1},
      {tmp / "canonical.qvx", "P.f16", tmp / "u/canonical.xjbundle/source_frames.f16", 1},
      {tmp / "canonical", "M.f32", tmp / "u/canonical.xjbundle/paste_transform.f32", 1},
      {tmp / "canonical", "P.f16.part", tmp / "u/canonical.xjbundle/P.f16.part", 0},
  };
  for (const Case& k : cases) {
    char out[4096];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(xj_bundle_resolve_member(k.bundle.c_str(), k.name.c_str(), out, sizeof out), k.result)
        << k.bundle << " " << k.name;
    EXPECT_EQ(std::string(out), k.path) << k.bundle << " " << k.name;
  }
}

TEST(BundleResolveMember, RefusalsLeaveTheErrorTextAlone) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "u").c_str());
  const std::string basic = xjtest::fixture("basic");
  const std::string path = basic + "/P.f16";
  std::vector<char> out(path.size() + 1, 'z');
  presetError();
  EXPECT_EQ(xj_bundle_resolve_member(nullptr, "P.f16", out.data(), out.size()), -1);
  EXPECT_EQ(xj_bundle_resolve_member(basic.c_str(), nullptr, out.data(), out.size()), -1);
  EXPECT_EQ(xj_bundle_resolve_member(basic.c_str(), "P.f16", nullptr, out.size()), -1);
  EXPECT_EQ(xj_bundle_resolve_member(basic.c_str(), "P.f16", out.data(), 0), -1);
  EXPECT_EQ(out[0], 'z');
  EXPECT_EQ(xj_bundle_resolve_member(basic.c_str(), "P.f16", out.data(), out.size() - 1), -1);
  EXPECT_EQ(out[0], '\0');
  EXPECT_EQ(xj_bundle_resolve_member(basic.c_str(), "P.f16", out.data(), out.size()), 1);
  EXPECT_EQ(std::string(out.data()), path);
  // A failed unwrap is -1 and an empty path; the thread's error stays as it was.
  xjtest::writeFile(tmp / "bad.qvx", qvxtest::container({{"/abs", "1"}}));
  std::vector<char> big(4096, 'z');
  EXPECT_EQ(xj_bundle_resolve_member((tmp / "bad.qvx").c_str(), "P.f16", big.data(), big.size()), -1);
  EXPECT_EQ(big[0], '\0');
  EXPECT_STREQ(xj_last_error(), "xj_create: NULL bundle_dir/model_key");
}

// A bundle packed by the writer renders, bit for bit, the crops of the folder
// it came from, whether named with or without the container's extension.
TEST(BundlePacked, RendersTheSameCropsAsItsFolder) {
  struct Case {
    const char* fixture;
    const char* model;
  };
  const std::vector<Case> cases = {{"basic", "b1"}, {"canonical", "b4"}, {"featsynth", "fs1"}, {"video", "b1"}};
  for (const Case& k : cases) {
    if (!haveFixture(k.fixture)) {
      ADD_FAILURE() << "fixture " << k.fixture << " missing";
      continue;
    }
    xjtest::TempDir tmp;
    xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "unwrap").c_str());
    const std::string packed = tmp / (std::string(k.fixture) + ".qvx");
    xj::qvx::writeQvx(xjtest::fixture(k.fixture), packed);
    xj_ctx* folder = xj_create(xjtest::fixture(k.fixture).c_str(), k.model, 1, nullptr);
    ASSERT_NE(folder, nullptr) << k.fixture << ": " << xj_last_error();
    for (const std::string& name : {packed, tmp / k.fixture}) {
      xj_ctx* h = xj_create(name.c_str(), k.model, 1, nullptr);
      ASSERT_NE(h, nullptr) << name << ": " << xj_last_error();
      EXPECT_EQ(xj_nt(h), xj_nt(folder));
      EXPECT_EQ(xj_width(h), xj_width(folder));
      EXPECT_EQ(xj_height(h), xj_height(folder));
      ASSERT_EQ(xj_drive_frames(h), xj_drive_frames(folder));
      ASSERT_GT(xj_drive_frames(h), 0);
      const size_t n = static_cast<size_t>(xj_crop(h)) * xj_crop(h) * 3;
      for (int i = 0; i < xj_drive_frames(h); ++i) {
        const float* a = xj_render_drive_crop(folder, i);
        ASSERT_NE(a, nullptr) << xj_last_error();
        const std::vector<float> want(a, a + n);
        const float* b = xj_render_drive_crop(h, i);
        ASSERT_NE(b, nullptr) << xj_last_error();
        EXPECT_EQ(std::memcmp(b, want.data(), n * sizeof(float)), 0) << name << " row " << i;
      }
      xj_destroy(h);
    }
    xj_destroy(folder);
  }
}

TEST(BundlePacked, EmptyContainerReachesTheManifestReader) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", nullptr);
  xjtest::writeFile(tmp / "empty.qvx", qvxtest::header(2, 0));
  EXPECT_EQ(xj_create((tmp / "empty.qvx").c_str(), "b1", 1, nullptr), nullptr);
  const std::string err = xj_last_error();
  EXPECT_EQ(err.rfind("xj_create: cannot open ", 0), 0u) << err;
  EXPECT_TRUE(qvxtest::isDir(tmp / "empty.xjbundle"));
}

// ---- prior rows --------------------------------------------------------------------

class PriorRows : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!haveFixture("video")) GTEST_SKIP() << "no video fixture";
    video = xjtest::fixture("video");
    ref = drvtest::refPriorFrames(xjtest::fixture("video_src") + "/prior.yuv", 16, 16);
  }
  std::string video;
  std::vector<std::vector<uint16_t>> ref;
};

TEST_F(PriorRows, RowsMatchTheReferenceInAnyOrder) {
  xjtest::TempDir tmp;
  xjtest::ScopedEnv root("XJ_QVX_UNWRAP_ROOT", (tmp / "u").c_str());
  xj::qvx::writeQvx(video, tmp / "video.qvx");
  for (const std::string& name : {video, tmp / "video.qvx"}) {
    xj_prior* p = xj_prior_open(name.c_str(), 3, 2);
    ASSERT_NE(p, nullptr) << xj_last_error();
    EXPECT_STREQ(xj_last_error(), "");
    const size_t bytes = xj_prior_row_bytes(p);
    ASSERT_EQ(bytes, 16u * 16 * 3 * 2);
    ASSERT_EQ(ref.size(), 3u);
    std::vector<uint8_t> row(bytes);
    for (int i : {0, 1, 2, 2, 0, 1, 0}) {
      presetError();
      ASSERT_EQ(xj_prior_row(p, i, row.data(), row.size()), 1) << xj_last_error();
      EXPECT_STREQ(xj_last_error(), "");
      EXPECT_EQ(std::memcmp(row.data(), ref[static_cast<size_t>(i)].data(), bytes), 0) << name << " row " << i;
    }
    EXPECT_NE(std::string(xj_prior_backend(p)), "");
    EXPECT_EQ(std::string(xj_prior_backend(p)), p->cursor->backend);
    xj_prior_close(p);
  }
}

TEST_F(PriorRows, OpenClampsLookAheadAndHistory) {
  // The ring holds look-ahead + history + 1 rows; the decoder's share of the
  // memory is the same once every packet has been read, so pull every row first.
  auto settled = [](xj::DriverCursor& c) {
    std::vector<uint8_t> row(c.frameBytes);
    for (int i = 0; i < c.NT; ++i) c.pullAt(i, row.data());
    return c.residentBytes();
  };
  xj_prior* p = xj_prior_open(video.c_str(), 0, -1);
  ASSERT_NE(p, nullptr) << xj_last_error();
  const uint64_t opened = settled(*p->cursor);
  const uint64_t two = settled(*xj::DriverCursor::openPrior(xj::loadManifest(video), 2, 0));
  const uint64_t one = settled(*xj::DriverCursor::openPrior(xj::loadManifest(video), 1, 0));
  EXPECT_EQ(opened, two);
  EXPECT_EQ(two - one, p->cursor->frameBytes);
  xj_prior_close(p);
}

TEST_F(PriorRows, Refusals) {
  xj_prior* p = xj_prior_open(video.c_str(), 2, 0);
  ASSERT_NE(p, nullptr) << xj_last_error();
  const size_t bytes = xj_prior_row_bytes(p);
  std::vector<uint8_t> row(bytes, 0xAB);
  EXPECT_EQ(xj_prior_row(p, 0, row.data(), bytes - 1), 0);
  EXPECT_EQ(std::string(xj_last_error()),
            "xj_prior_row: cap " + std::to_string(bytes - 1) + " < row bytes " + std::to_string(bytes));
  EXPECT_EQ(row, std::vector<uint8_t>(bytes, 0xAB));
  EXPECT_EQ(xj_prior_row(nullptr, 0, row.data(), bytes), 0);
  EXPECT_STREQ(xj_last_error(), "xj_prior_row: NULL prior/out");
  EXPECT_EQ(xj_prior_row(p, 0, nullptr, bytes), 0);
  EXPECT_STREQ(xj_last_error(), "xj_prior_row: NULL prior/out");

  // A row the cursor refuses comes back with the cursor's own words.
  const auto direct = xj::DriverCursor::openPrior(xj::loadManifest(video), 2, 0);
  const std::string cursorSays = qvxtest::errorOf([&] { direct->pullAt(3, row.data()); });
  ASSERT_NE(cursorSays, "");
  EXPECT_EQ(xj_prior_row(p, 3, row.data(), bytes), 0);
  EXPECT_EQ(std::string(xj_last_error()), "xj_prior_row: " + cursorSays);
  xj_prior_close(p);

  EXPECT_EQ(xj_prior_open(nullptr, 2, 0), nullptr);
  EXPECT_STREQ(xj_last_error(), "xj_prior_open: NULL bundle_dir");
  // No prior video in this bundle: the cursor's refusal.
  const std::string basic = xjtest::fixture("basic");
  const std::string noVideo =
      qvxtest::errorOf([&] { xj::DriverCursor::openPrior(xj::loadManifest(basic), 2, 0); });
  ASSERT_NE(noVideo, "");
  EXPECT_EQ(xj_prior_open(basic.c_str(), 2, 0), nullptr);
  EXPECT_EQ(std::string(xj_last_error()), "xj_prior_open: " + noVideo);
  // No bundle at all: the manifest reader's refusal.
  const std::string nowhere = basic + "/nowhere";
  const std::string noManifest = qvxtest::errorOf([&] { xj::loadManifest(nowhere); });
  EXPECT_EQ(xj_prior_open(nowhere.c_str(), 2, 0), nullptr);
  EXPECT_EQ(std::string(xj_last_error()), "xj_prior_open: " + noManifest);

  EXPECT_STREQ(xj_prior_backend(nullptr), "");
  EXPECT_NE(xj_prior_backend(nullptr), nullptr);
  EXPECT_EQ(xj_prior_row_bytes(nullptr), 0u);
  xj_prior_close(nullptr);
}
