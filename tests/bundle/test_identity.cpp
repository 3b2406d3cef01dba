// Member names, the mapped identity, the idle tables.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "bundle/xj_bundle.h"
#include "xj_testutil.h"

namespace {

const char kEm[] = "\xE2\x80\x94";

// A private copy of a fixture bundle that a test may change.
struct BundleCopy {
  xjtest::TempDir tmp;
  std::string dir;
  explicit BundleCopy(const char* fixture) : dir(tmp / "b") { xjtest::copyTree(xjtest::fixture(fixture), dir); }
  std::string operator/(const std::string& m) const { return dir + "/" + m; }
  void editManifest(const std::string& from, const std::string& to) const {
    std::string t = xjtest::readFile(dir + "/manifest.json");
    const size_t p = t.find(from);
    if (p == std::string::npos) throw std::runtime_error("test: manifest has no " + from);
    xjtest::writeFile(dir + "/manifest.json", t.replace(p, from.size(), to));
  }
  void addToManifest(const std::string& kv) const { editManifest("\"format\"", kv + ", \"format\""); }
};

std::string identityError(const std::string& dir) {
  try {
    xj::Manifest m = xj::loadManifest(dir);
    xj::Identity id(m);
    xj::loadDrive(m);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

void truncateBy(const std::string& path, long bytes) {
  std::string s = xjtest::readFile(path);
  s.resize(s.size() - static_cast<size_t>(bytes));
  xjtest::writeFile(path, s);
}

}  // namespace

TEST(CanonicalMember, Rules) {
  const char* cases[][2] = {
      {"P.f16", "source_frames.f16"},
      {"P_hevc.mov", "source_frames.hevc"},
      {"a2x_enc_stream.onnx", "audio_motion_encoder.onnx"},
      {"a2x_dec.onnx", "audio_motion_decoder.onnx"},
      {"M.f32", "paste_transform.f32"},
      {"mask_512.u8", "paste_mask.u8"},
      {"pooled64.f16", "pooled_features.f16"},
      {"fs_red.f16", "feature_synth.f16"},
      {"xs_target.bin", "target_keypoints.bin"},
      {"model_b4.onnx", "render_model.batch4.onnx"},
      {"model_b4_int8.onnx", "render_model.batch4.int8.onnx"},
      {"model_bX.onnx", "render_model.batchX.onnx"},
      {"model_b1_a_b.onnx", "render_model.batch1.a_b.onnx"},
      {"model_b.onnx", "model_b.onnx"},
      {"model_b1.onnx.bak", "model_b1.onnx.bak"},
      {"drive/xs.f32", "idle_loop/source_keypoints.f32"},
      {"drive/xd.f32", "idle_loop/driven_keypoints.f32"},
      {"drive/si.i32", "idle_loop/source_index.i32"},
      {"drive/xs", "idle_loop/source_keypoints"},
      {"drive/abc.f32", "idle_loop/abc.f32"},
      {"drive/xs.a.b", "idle_loop/source_keypoints.a.b"},
      {"source_frames.f16", "source_frames.f16"},
      {"manifest.json", "manifest.json"},
  };
  for (const auto& c : cases) EXPECT_EQ(xj::canonicalMember(c[0]), c[1]) << c[0];
}

TEST(ResolveMember, LegacyWinsThenCanonicalThenAskedName) {
  xjtest::TempDir d;
  EXPECT_EQ(xj::resolveMember(d.path(), "P.f16"), d / "P.f16");
  xjtest::writeFile(d / "source_frames.f16", "c");
  EXPECT_EQ(xj::resolveMember(d.path(), "P.f16"), d / "source_frames.f16");
  xjtest::writeFile(d / "P.f16", "l");
  EXPECT_EQ(xj::resolveMember(d.path(), "P.f16"), d / "P.f16");
  // Asking for a canonical name never finds a legacy file.
  xjtest::removeTree(d / "source_frames.f16");
  EXPECT_EQ(xj::resolveMember(d.path(), "source_frames.f16"), d / "source_frames.f16");
}

TEST(Identity, LegacyAndCanonicalBundlesMapTheSameBytes) {
  const xj::Manifest ml = xj::loadManifest(xjtest::fixture("basic"));
  const xj::Manifest mc = xj::loadManifest(xjtest::fixture("canonical"));
  xj::Identity a(ml), b(mc);
  ASSERT_TRUE(a.pMap.base && b.pMap.base && !a.fsRedMap.base);
  EXPECT_TRUE(a.priorPath.empty());
  EXPECT_EQ(a.pooled64Map.length, 3u * 131072);
  EXPECT_EQ(a.pMap.length, 3u * 16 * 16 * 6);
  for (int i = 0; i < a.NT; ++i) {
    EXPECT_EQ(std::memcmp(a.pooled64(i), b.pooled64(i), 131072), 0);
    EXPECT_EQ(std::memcmp(a.P(i), b.P(i), 16 * 16 * 6), 0);
  }
  EXPECT_EQ(a.m, b.m);
  const xj::Drive da = xj::loadDrive(ml), db = xj::loadDrive(mc);
  EXPECT_EQ(da.frames, 5);
  EXPECT_EQ(da.xs, db.xs);
  EXPECT_EQ(da.xd, db.xd);
  EXPECT_EQ(da.si, db.si);
  // The accessors step through the files by frame.
  const std::string pooled = xjtest::readFile(xjtest::fixture("basic") + "/pooled64.f16");
  EXPECT_EQ(std::memcmp(a.pooled64(2), pooled.data() + 2 * 131072, 131072), 0);
  EXPECT_EQ(a.M(1), a.m.data() + 6);
}

TEST(Identity, MembersAreMappedNotCopied) {
  const xj::Manifest m = xj::loadManifest(xjtest::fixture("basic"));
  xj::Identity id(m);
  const std::string maps = xjtest::readFile("/proc/self/maps");
  const std::string pooledPath = m.dir + "/pooled64.f16";
  EXPECT_NE(maps.find(pooledPath), std::string::npos);
  EXPECT_NE(maps.find(m.dir + "/P.f16"), std::string::npos);
  EXPECT_EQ(static_cast<const void*>(id.pooled64(0)), id.pooled64Map.base);
}

TEST(Identity, FeatureMapOnlyBundle) {
  const xj::Manifest m = xj::loadManifest(xjtest::fixture("featsynth"));
  xj::Identity id(m);
  EXPECT_FALSE(id.pMap.base);
  EXPECT_TRUE(id.priorPath.empty());
  ASSERT_TRUE(id.fsRedMap.base);
  EXPECT_EQ(id.fsRedMap.length, 3u * 524288);
  const std::string fs = xjtest::readFile(m.dir + "/fs_red.f16");
  EXPECT_EQ(std::memcmp(id.fsRed(1), fs.data() + 524288, 524288), 0);
}

TEST(Identity, RawPriorWinsOverNamedVideo) {
  BundleCopy b("basic");
  xjtest::writeFile(b / "P_hevc.mov", "not a video");
  b.addToManifest("\"P_hevc\": \"P_hevc.mov\"");
  const xj::Manifest m = xj::loadManifest(b.dir);
  xj::Identity id(m);
  EXPECT_TRUE(id.pMap.base);
  EXPECT_TRUE(id.priorPath.empty());
}

TEST(Identity, NamedVideoPriorIsRememberedNotOpened) {
  BundleCopy b("basic");
  xjtest::removeTree(b / "P.f16");
  xjtest::writeFile(b / "prior.mov", "not decoded at load");
  b.addToManifest("\"P_hevc\": \"prior.mov\"");
  const xj::Manifest m = xj::loadManifest(b.dir);
  xj::Identity id(m);
  EXPECT_FALSE(id.pMap.base);
  EXPECT_EQ(id.priorPath, b / "prior.mov");
}

TEST(Identity, RescaleM) {
  // The fixture "rescaled" was authored at 20x32 on a 40x32 canvas: the first
  // row doubles, the second is untouched.
  const xj::Manifest mr = xj::loadManifest(xjtest::fixture("rescaled"));
  const xj::Manifest mb = xj::loadManifest(xjtest::fixture("basic"));
  xj::Identity r(mr), b(mb);
  const std::string raw = xjtest::readFile(mb.dir + "/M.f32");
  ASSERT_EQ(raw.size(), b.m.size() * 4);
  EXPECT_EQ(std::memcmp(b.m.data(), raw.data(), raw.size()), 0);  // same space: bit-identical
  for (int i = 0; i < r.NT; ++i) {
    for (int k = 0; k < 3; ++k) EXPECT_EQ(r.M(i)[k], static_cast<float>(static_cast<double>(b.M(i)[k]) * 2.0));
    for (int k = 3; k < 6; ++k) EXPECT_EQ(r.M(i)[k], b.M(i)[k]);
  }
  // A scale that is not a power of two rounds through double.
  xj::Manifest odd = mb;
  odd.M_src_w = 30;
  odd.M_src_h = 48;
  std::vector<float> m = b.m;
  r.m = m;
  r.rescaleM(odd);
  for (size_t f = 0; f < m.size(); f += 6)
    for (int k = 0; k < 6; ++k)
      EXPECT_EQ(r.m[f + k], static_cast<float>(static_cast<double>(m[f + k]) * (k < 3 ? 40.0 / 30 : 32.0 / 48)));
  odd.M_src_w = 0;
  try {
    r.rescaleM(odd);
    FAIL() << "no refusal";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()), std::string("xj::Identity: manifest carries no paste-space stamp "
                                                 "(M_src_w/M_src_h) ") +
                                         kEm + " refusing to paste M without knowing the space it was authored in");
  }
}

TEST(Identity, UnlistedSpellingsOfBothNamesOnDiskUseTheLegacyFile) {
  BundleCopy b("basic");
  // A canonical copy with different content beside the legacy file is ignored.
  std::string other = xjtest::readFile(b / "P.f16");
  other[0] ^= 0x55;
  xjtest::writeFile(b / "source_frames.f16", other);
  const xj::Manifest m = xj::loadManifest(b.dir);
  xj::Identity id(m);
  EXPECT_EQ(std::memcmp(id.P(0), xjtest::readFile(b / "P.f16").data(), 16), 0);
}

struct MemberFault {
  const char* name;
  void (*apply)(const BundleCopy&);
  std::string message;  // "$B" is the bundle directory
};

void PrintTo(const MemberFault& c, std::ostream* os) { *os << c.name; }

class IdentityRefusal : public ::testing::TestWithParam<MemberFault> {};

TEST_P(IdentityRefusal, ExactWords) {
  BundleCopy b("basic");
  GetParam().apply(b);
  std::string want = GetParam().message;
  for (size_t p; (p = want.find("$B")) != std::string::npos;) want.replace(p, 2, b.dir);
  EXPECT_EQ(identityError(b.dir), want);
}

const std::string kNoPrior = std::string("this bundle carries neither P.f16 nor fs_red.f16, and its manifest names no ") +
                             "P_hevc member to play one from " + kEm +
                             " the renderer has no warp prior and xj::Identity would hand it a null pointer. "
                             "REFUSING to create a session.";

INSTANTIATE_TEST_SUITE_P(
    Bundle, IdentityRefusal,
    ::testing::Values(
        MemberFault{"PShortByOne", [](const BundleCopy& b) { truncateBy(b / "P.f16", 1); }, "size mismatch $B/P.f16"},
        MemberFault{"PooledShortByOne", [](const BundleCopy& b) { truncateBy(b / "pooled64.f16", 1); },
                    "size mismatch $B/pooled64.f16"},
        MemberFault{"PooledMissing", [](const BundleCopy& b) { xjtest::removeTree(b / "pooled64.f16"); },
                    "cannot open $B/pooled64.f16"},
        MemberFault{"MOneFloatLong",
                    [](const BundleCopy& b) {
                      xjtest::writeFile(b / "M.f32", xjtest::readFile(b / "M.f32") + std::string(4, '\0'));
                    },
                    "size mismatch $B/M.f32"},
        MemberFault{"MOneByteLong",
                    [](const BundleCopy& b) { xjtest::writeFile(b / "M.f32", xjtest::readFile(b / "M.f32") + "x"); },
                    "size mismatch $B/M.f32"},
        MemberFault{"MShort", [](const BundleCopy& b) { truncateBy(b / "M.f32", 4); }, "size mismatch $B/M.f32"},
        MemberFault{"MMissing", [](const BundleCopy& b) { xjtest::removeTree(b / "M.f32"); },
                    "cannot open $B/M.f32"},
        MemberFault{"XsShort", [](const BundleCopy& b) { truncateBy(b / "drive/xs.f32", 4); },
                    "size mismatch $B/drive/xs.f32"},
        MemberFault{"XdMissing", [](const BundleCopy& b) { xjtest::removeTree(b / "drive/xd.f32"); },
                    "cannot open $B/drive/xd.f32"},
        MemberFault{"SiLong",
                    [](const BundleCopy& b) {
                      xjtest::writeFile(b / "drive/si.i32", xjtest::readFile(b / "drive/si.i32") + std::string(1, '\0'));
                    },
                    "size mismatch $B/drive/si.i32"},
        MemberFault{"SiMissing", [](const BundleCopy& b) { xjtest::removeTree(b / "drive/si.i32"); },
                    "cannot open $B/drive/si.i32"},
        MemberFault{"SiEqualsNT",
                    [](const BundleCopy& b) {
                      std::string s = xjtest::readFile(b / "drive/si.i32");
                      const int32_t nt = 3;
                      std::memcpy(&s[8], &nt, 4);
                      xjtest::writeFile(b / "drive/si.i32", s);
                    },
                    "drive: si out of range"},
        MemberFault{"SiNegative",
                    [](const BundleCopy& b) {
                      std::string s = xjtest::readFile(b / "drive/si.i32");
                      const int32_t neg = -1;
                      std::memcpy(&s[0], &neg, 4);
                      xjtest::writeFile(b / "drive/si.i32", s);
                    },
                    "drive: si out of range"},
        MemberFault{"NoPriorAtAll", [](const BundleCopy& b) { xjtest::removeTree(b / "P.f16"); }, kNoPrior},
        MemberFault{"EmptyPHevcIsNoName",
                    [](const BundleCopy& b) {
                      xjtest::removeTree(b / "P.f16");
                      b.addToManifest("\"P_hevc\": \"\"");
                    },
                    kNoPrior},
        MemberFault{"PHevcNamedButAbsent",
                    [](const BundleCopy& b) {
                      xjtest::removeTree(b / "P.f16");
                      b.addToManifest("\"P_hevc\": \"gone.mov\"");
                    },
                    std::string("this bundle's manifest names P_hevc 'gone.mov' and the file is not there "
                                "($B/gone.mov) ") +
                        kEm + " the renderer has no warp prior. REFUSING to create a session."},
        MemberFault{"PRgbNamesAnotherFile",
                    [](const BundleCopy& b) {
                      ::rename((b / "P.f16").c_str(), (b / "prior_rgb.f16").c_str());
                      b.addToManifest("\"P_rgb\": \"prior_rgb.f16\"");
                    },
                    std::string("this bundle's manifest names its raw warp prior 'prior_rgb.f16' (P_rgb) but "
                                "xj::Identity maps the welded name P.f16 and would find nothing ") +
                        kEm +
                        " it maps NOTHING silently and Identity::P(si) is then an offset from a null pointer. "
                        "REFUSING rather than rendering off a prior nothing will read."},
        MemberFault{"PRgbNamesAbsentFileFallsToNoPrior",
                    [](const BundleCopy& b) {
                      xjtest::removeTree(b / "P.f16");
                      b.addToManifest("\"P_rgb\": \"absent.f16\"");
                    },
                    std::string("this bundle carries neither absent.f16 nor fs_red.f16, and its manifest names no "
                                "P_hevc member to play one from ") +
                        kEm +
                        " the renderer has no warp prior and xj::Identity would hand it a null pointer. REFUSING "
                        "to create a session."}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(Identity, PRgbBesideAFeatureMapIsNoRefusal) {
  BundleCopy b("featsynth");
  xjtest::writeFile(b / "prior_rgb.f16", "x");
  b.addToManifest("\"P_rgb\": \"prior_rgb.f16\"");
  EXPECT_EQ(identityError(b.dir), "");
}

TEST(Drive, ZeroFramesNeedsEmptyMembersNotAbsentOnes) {
  BundleCopy b("basic");
  b.editManifest("\"frames\": 5", "\"frames\": 0");
  for (const char* m : {"drive/xs.f32", "drive/xd.f32", "drive/si.i32"}) xjtest::writeFile(b / m, "");
  EXPECT_EQ(xj::loadDrive(xj::loadManifest(b.dir)).frames, 0);
  xjtest::removeTree(b / "drive/si.i32");
  EXPECT_EQ(identityError(b.dir), "cannot open " + (b / "drive/si.i32"));
}
