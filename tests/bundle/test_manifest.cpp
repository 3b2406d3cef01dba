// The manifest byte scanner and the manifest loader.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bundle/xj_bundle.h"
#include "xj_testutil.h"

namespace mk = xj::manifest_key;

namespace {

const char kEm[] = "\xE2\x80\x94";

std::string ambiguous(const std::string& key, const std::vector<size_t>& pos) {
  std::string s = "manifest: key \"" + key + "\" is AMBIGUOUS " + kEm + " " + std::to_string(pos.size()) +
                  " scalar occurrences (";
  for (size_t i = 0; i < pos.size(); ++i) s += (i ? ", byte " : "byte ") + std::to_string(pos[i]);
  return s +
         "). A loader that picks one silently installs a number nobody checks. Rename the colliding key (a nested "
         "block must not reuse a name the bundle loader reads: NT/frame_count, H, W, crop/crop_size, amount, "
         "sigma, ksize, frames, M_src_w/paste_source_width, M_src_h/paste_source_height), or produce the bundle "
         "with the legacy manifest layout.";
}

// Byte offset of the n-th occurrence (from 0) of `needle`, plus `skip`.
size_t at(const std::string& s, const std::string& needle, int n, size_t skip) {
  size_t p = std::string::npos;
  for (int i = 0; i <= n; ++i) p = s.find(needle, p == std::string::npos ? 0 : p + 1);
  return p + skip;
}

std::string scanError(const std::string& json, const std::string& key) {
  try {
    mk::scalarValuePos(json, key);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST(KeyHits, DepthScalarAndPositions) {
  const std::string j = R"({"H": 7, "x": {"H" :[1], "s": "H", "t": {"H":  {}}}, "a": ["H", "H" : 3]})";
  const auto hits = mk::keyHits(j, "H");
  ASSERT_EQ(hits.size(), 4u);
  EXPECT_EQ(hits[0].pos, j.find('7'));
  EXPECT_EQ(hits[0].depth, 1);
  EXPECT_TRUE(hits[0].scalar);
  EXPECT_EQ(hits[1].depth, 2);
  EXPECT_FALSE(hits[1].scalar);
  EXPECT_EQ(hits[2].depth, 3);
  EXPECT_FALSE(hits[2].scalar);
  // Brackets count like braces; "H" followed by a comma is no key, "H" followed by a colon is.
  EXPECT_EQ(hits[3].depth, 2);
  EXPECT_EQ(hits[3].pos, j.find('3'));
}

TEST(KeyHits, StringsAreScannedWithEscapesAndRawBytes) {
  // The escaped quote keeps the scanner inside the string; the key compares raw bytes.
  const std::string j = R"({"a": "x\": 1", "H\u0041": 2, "HA": 3})";
  const auto hits = mk::keyHits(j, "HA");
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].pos, j.find('3'));
  EXPECT_TRUE(mk::keyHits(j, "x\\").empty());
}

TEST(KeyHits, EdgesOfText) {
  EXPECT_TRUE(mk::keyHits(R"({"H": "unterminated)", "unterminated").empty());
  const auto hits = mk::keyHits(R"({"H":)", "H");  // colon at the very end
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_FALSE(hits[0].scalar);
  EXPECT_EQ(mk::scalarValuePos(R"({"H":)", "H"), mk::kNoValue);
}

struct ScanCase {
  const char* name;
  std::string json;
  std::string expectValue;          // the text at the returned position, "" for no value
  std::vector<std::string> report;  // needles whose positions the refusal lists (after ": ")
};

void PrintTo(const ScanCase& c, std::ostream* os) { *os << c.name; }

class ScalarValuePos : public ::testing::TestWithParam<ScanCase> {};

TEST_P(ScalarValuePos, Rule) {
  const ScanCase& c = GetParam();
  if (!c.report.empty()) {
    std::vector<size_t> pos;
    for (size_t i = 0; i < c.report.size(); ++i) pos.push_back(at(c.json, c.report[i], 0, 0));
    EXPECT_EQ(scanError(c.json, "H"), ambiguous("H", pos));
    return;
  }
  const uint64_t p = mk::scalarValuePos(c.json, "H");
  if (c.expectValue.empty()) {
    EXPECT_EQ(p, mk::kNoValue);
  } else {
    ASSERT_NE(p, mk::kNoValue);
    EXPECT_EQ(c.json.substr(p, c.expectValue.size()), c.expectValue);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Manifest, ScalarValuePos,
    ::testing::Values(
        ScanCase{"RootWinsOverNested", R"({"H": 32, "blk": {"H": 99}})", "32", {}},
        ScanCase{"NestedFirstThenRoot", R"({"blk": {"H": 99}, "H": 31})", "31", {}},
        ScanCase{"TwoRoots", R"({"H": 32, "W": 1, "H": 33})", "", {"32", "33"}},
        ScanCase{"TwoNestedNoRoot", R"({"a": {"H": 5}, "b": {"H": 6}})", "", {"5}", "6}"}},
        ScanCase{"OneNestedNoRoot", R"({"a": {"b": {"H": 44}}})", "44", {}},
        ScanCase{"ObjectValueOnly", R"({"H": {"v": 1}})", "", {}},
        ScanCase{"ArrayValueOnly", R"({"H": [1, 2]})", "", {}},
        ScanCase{"CommaNotColon", R"({"k": ["H", 1], "x": "H"})", "", {}},
        ScanCase{"StringValueIsScalar", R"({"H": "tall"})", "\"tall\"", {}},
        ScanCase{"ObjectRootPlusScalarNested", R"({"H": {"H": 8}})", "8", {}}),
    [](const auto& info) { return std::string(info.param.name); });

// ---- loadManifest --------------------------------------------------------

namespace {

const char* kBase = R"({"format": "xj-bundle-v0", "agent": "a1", "NT": 3, "H": 32, "W": 40, "crop": 16,
 "amount": 1.5, "sigma": 2.5, "ksize": 9, "frames": 5, "M_src_w": 40, "M_src_h": 32})";

std::string withManifest(const xjtest::TempDir& d, const std::string& text) {
  xjtest::writeFile(d / "manifest.json", text);
  return d.path();
}

std::string loadError(const std::string& dir) {
  try {
    xj::loadManifest(dir);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "";
}

std::string replace(std::string s, const std::string& from, const std::string& to) {
  const size_t p = s.find(from);
  if (p == std::string::npos) throw std::runtime_error("test: no " + from);
  return s.replace(p, from.size(), to);
}

}  // namespace

TEST(LoadManifest, ReadsEveryKey) {
  xjtest::TempDir d;
  xjtest::writeFile(d / "lip_template.v1.json", "{\"lip\": 1}");
  const xj::Manifest m = xj::loadManifest(withManifest(d, kBase));
  EXPECT_EQ(m.dir, d.path());
  EXPECT_EQ(m.agent, "a1");
  EXPECT_EQ(m.NT, 3);
  EXPECT_EQ(m.H, 32);
  EXPECT_EQ(m.W, 40);
  EXPECT_EQ(m.crop, 16);
  EXPECT_FLOAT_EQ(m.amount, 1.5f);
  EXPECT_FLOAT_EQ(m.sigma, 2.5f);
  EXPECT_EQ(m.ksize, 9);
  EXPECT_EQ(m.frames, 5);
  EXPECT_EQ(m.M_src_w, 40);
  EXPECT_EQ(m.M_src_h, 32);
  EXPECT_EQ(m.lipTemplateJson, "{\"lip\": 1}");
  EXPECT_EQ(m.modelPath("b1"), d.path() + "/model_b1.onnx");
}

TEST(LoadManifest, AliasesTruncationAndIndependentStampDimensions) {
  xjtest::TempDir d;
  std::string t = replace(replace(kBase, "\"NT\": 3", "\"frame_count\": 7.9"), "\"crop\": 16", "\"crop_size\": 12");
  t = replace(replace(t, "\"M_src_h\": 32", "\"paste_source_height\": 16"), "\"H\": 32", "\"H\": 32.99");
  const xj::Manifest m = xj::loadManifest(withManifest(d, t));
  EXPECT_EQ(m.NT, 7);
  EXPECT_EQ(m.crop, 12);
  EXPECT_EQ(m.H, 32);
  EXPECT_EQ(m.M_src_w, 40);
  EXPECT_EQ(m.M_src_h, 16);
  EXPECT_TRUE(m.lipTemplateJson.empty());
}

TEST(LoadManifest, SentinelFallsThroughToAlias) {
  xjtest::TempDir d;
  const std::string t = replace(kBase, "\"NT\": 3", "\"NT\": -1e300, \"frame_count\": 4");
  EXPECT_EQ(xj::loadManifest(withManifest(d, t)).NT, 4);
  // With a good main name the alias is never looked at, not even for ambiguity.
  const std::string t2 = replace(kBase, "\"NT\": 3", "\"NT\": 3, \"frame_count\": 4, \"frame_count\": 5");
  EXPECT_EQ(xj::loadManifest(withManifest(d, t2)).NT, 3);
}

TEST(LoadManifest, NestedBlockMayReuseANameTheRootHoldsOnce) {
  xjtest::TempDir d;
  const std::string t = replace(kBase, "\"frames\": 5", "\"frames\": 5, \"tessera\": {\"H\": 512, \"W\": 512}");
  const xj::Manifest m = xj::loadManifest(withManifest(d, t));
  EXPECT_EQ(m.H, 32);
  EXPECT_EQ(m.W, 40);
}

struct RefusalCase {
  const char* name;
  std::string from, to;
  std::string message;  // "$DIR" stands for the bundle directory
};

void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }

class ManifestRefusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(ManifestRefusal, ExactWords) {
  const RefusalCase& c = GetParam();
  xjtest::ScopedEnv env("QUILLON2_MSRC_MISSING_OK", nullptr);
  xjtest::TempDir d;
  std::string want = c.message;
  for (size_t p; (p = want.find("$DIR")) != std::string::npos;) want.replace(p, 4, d.path());
  EXPECT_EQ(loadError(withManifest(d, replace(kBase, c.from, c.to))), want);
}

const std::string kStampMsg = std::string("$DIR/manifest.json declares no paste-space stamp (M_src_w/M_src_h, aka ") +
                              "paste_source_width/height) " + kEm +
                              " the canvas is 40x32, so M cannot be placed: absence is not evidence that M was "
                              "authored at that size. Re-stamp the bundle (models/quillon-2/inference/backfill_msrc), "
                              "or set QUILLON2_MSRC_MISSING_OK=1 to restore the legacy assumption.";

INSTANTIATE_TEST_SUITE_P(
    Manifest, ManifestRefusal,
    ::testing::Values(
        RefusalCase{"FormatShort", "xj-bundle-v0", "xj-bundle-v", "not an xj-bundle-v0: $DIR"},
        RefusalCase{"FormatLong", "xj-bundle-v0", "xj-bundle-v00", "not an xj-bundle-v0: $DIR"},
        RefusalCase{"FormatCase", "xj-bundle-v0", "XJ-bundle-v0", "not an xj-bundle-v0: $DIR"},
        RefusalCase{"FormatMissing", "\"format\": \"xj-bundle-v0\",", "", "manifest: missing key format"},
        RefusalCase{"FormatUnclosed", "\"format\": \"xj-bundle-v0\", \"agent\": \"a1\", \"NT\": 3, \"H\": 32, "
                                      "\"W\": 40, \"crop\": 16,\n \"amount\": 1.5, \"sigma\": 2.5, \"ksize\": 9, "
                                      "\"frames\": 5, \"M_src_w\": 40, \"M_src_h\": 32}",
                    "\"format\": 5}", "manifest: bad string format"},
        RefusalCase{"AgentMissing", "\"agent\": \"a1\",", "", "manifest: missing key agent"},
        RefusalCase{"NTMissing", "\"NT\": 3,", "", "manifest: missing key NT/frame_count"},
        RefusalCase{"HMissing", "\"H\": 32,", "", "manifest: missing key H"},
        RefusalCase{"HObject", "\"H\": 32,", "\"H\": {\"v\": 32},", "manifest: missing key H"},
        RefusalCase{"CropMissing", "\"crop\": 16,", "", "manifest: missing key crop/crop_size"},
        RefusalCase{"FramesMissing", "\"frames\": 5,", "", "manifest: missing key frames"},
        RefusalCase{"AmountMissing", "\"amount\": 1.5,", "", "manifest: missing key amount"},
        RefusalCase{"NTZero", "\"NT\": 3", "\"NT\": 0", "manifest: bad dims"},
        RefusalCase{"WQuoted", "\"W\": 40", "\"W\": \"40\"", "manifest: bad dims"},
        RefusalCase{"CropNegative", "\"crop\": 16", "\"crop\": -16", "manifest: bad dims"},
        RefusalCase{"TwoRootH", "\"H\": 32,", "\"H\": 32, \"H\": 33,",
                    ambiguous("H", {std::string(kBase).find("32,"), std::string(kBase).find("32,") + 9})},
        RefusalCase{"NoStamp", ", \"M_src_w\": 40, \"M_src_h\": 32", "", kStampMsg},
        RefusalCase{"HalfStamp", ", \"M_src_h\": 32", "", kStampMsg},
        RefusalCase{"StampZero", "\"M_src_w\": 40", "\"M_src_w\": 0",
                    "manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)"},
        RefusalCase{"StampNegativeAlias", "\"M_src_h\": 32", "\"paste_source_height\": -2",
                    "manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)"}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(LoadManifest, MissingFileNamesThePath) {
  xjtest::TempDir d;
  EXPECT_EQ(loadError(d.path()), "cannot open " + d.path() + "/manifest.json");
}

namespace {
void loadUnstamped(void* dir) {
  const xj::Manifest m = xj::loadManifest(*static_cast<std::string*>(dir));
  std::fprintf(stderr, "stamp %dx%d\n", m.M_src_w, m.M_src_h);
}
}  // namespace

TEST(LoadManifest, MissingStampEscapeHatchIsExactlyOne) {
  xjtest::TempDir d;
  std::string dir = withManifest(d, replace(kBase, ", \"M_src_w\": 40, \"M_src_h\": 32", ""));
  for (const char* bad : {"true", "11", "", " 1", "1 "}) {
    xjtest::ScopedEnv env("QUILLON2_MSRC_MISSING_OK", bad);
    EXPECT_NE(loadError(dir).find("declares no paste-space stamp"), std::string::npos) << "value '" << bad << "'";
  }
  xjtest::ScopedEnv env("QUILLON2_MSRC_MISSING_OK", "1");
  int status = 0;
  const std::string err = xjtest::captureStderr(loadUnstamped, &dir, &status);
  EXPECT_EQ(err, "[xj] WARNING QUILLON2_MSRC_MISSING_OK=1: " + dir +
                     "/manifest.json carries no paste-space stamp; ASSUMING M was authored on this 40x32 canvas. If "
                     "it was not, the face pastes off-target (vq#144) and nothing will say so.\nstamp 40x32\n");
  EXPECT_EQ(status, 0);
}
