// Each channel takes a filter that keeps its meaning (colour the chosen one, data one that
// cannot clip, IDs Nearest; --channel-filter overrides), and an output format that cannot hold
// the channels is refused before any work.

#include <set>

#include "../CliTestSupport.h"
#include "cli/render/ChannelFilters.h"
#include "cli/shared/Errors.h"

namespace {

using namespace vt_cli_test;

constexpr int kW = 48, kH = 32;
const std::vector<std::string> kAov = {"R", "G", "B", "A", "N.x", "N.y", "N.z", "Z", "objectId"};

// A float plate: noisy colour, opaque alpha, a camera-facing normal (N.z = -1) whose x runs
// from -1 to 1, and blocks of two depths and three object ids.
std::vector<float> AovPixels() {
  std::vector<float> px(size_t(kW) * kH * kAov.size());
  const auto noise = Noise(px.size(), 19);
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      float* p = &px[(size_t(y) * kW + x) * kAov.size()];
      const int block = (x / 8 + y / 8) % 3;
      for (int c = 0; c < 3; ++c) p[c] = (noise[size_t(&p[c] - px.data())] >> 8) / 8388608.0f;
      const float v[] = {1.0f, -1.0f + 2.0f * x / (kW - 1), 0.25f, -1.0f,
                         block == 0 ? 1.0f : 10.0f, 3.0f + 4.0f * block};
      std::copy(v, v + 6, p + 3);
    }
  }
  return px;
}

void WriteChannels(const std::string& path, const std::vector<std::string>& names,
                   const std::vector<float>& all) {
  std::vector<float> px;
  for (size_t i = 0; i < all.size(); i += kAov.size()) {
    for (const std::string& n : names) {
      px.push_back(all[i + size_t(std::find(kAov.begin(), kAov.end(), n) - kAov.begin())]);
    }
  }
  OIIO::ImageSpec spec(kW, kH, static_cast<int>(names.size()), OIIO::TypeDesc::FLOAT);
  spec.channelnames = names;
  spec.alpha_channel = names.size() > 3 && names[3] == "A" ? 3 : -1;
  WriteSpec(path, spec, OIIO::TypeDesc::FLOAT, px.data());
}

// The samples of one named channel.
std::vector<float> Channel(const Image& im, const std::string& name) {
  const auto& names = im.spec.channelnames;
  const size_t c = size_t(std::find(names.begin(), names.end(), name) - names.begin());
  EXPECT_LT(c, names.size()) << name;
  std::vector<float> v;
  for (size_t i = c; i < im.pixels.size(); i += size_t(im.channels)) v.push_back(im.pixels[i]);
  return v;
}

TEST(ChannelFilters, NamesSayWhatAChannelHolds) {
  using veltrisca::ChannelKind;
  const std::pair<const char*, ChannelKind> cases[] = {
      {"diffuse.G", ChannelKind::kColour},   {"sidelight.R", ChannelKind::kColour},
      {"depth.Z", ChannelKind::kDepth},      {"VRayZDepth", ChannelKind::kDepth},
      {"ViewLayer.Normal.X", ChannelKind::kNormal}, {"P.x", ChannelKind::kPosition},
      {"forward.u", ChannelKind::kMotion},   {"uv.v", ChannelKind::kUv},
      {"CryptoObject00.R", ChannelKind::kId}, {"VRayMtlID.R", ChannelKind::kId},
      {"ViewLayer.IndexOB.X", ChannelKind::kId},
  };
  for (const auto& [name, kind] : cases) {
    EXPECT_EQ(veltrisca::KindName(veltrisca::KindOfChannel(name)), veltrisca::KindName(kind))
        << name;
  }
}

// Default options (Lanczos-2): normals keep their negative half, depth and ids only values
// the plate has, and colour and alpha are bit for bit what a colour-only plate gives.
TEST(ChannelFilters, EveryChannelKeepsItsMeaningUnderTheDefaultFilter) {
  ScratchDir dir;
  const std::vector<float> px = AovPixels();
  WriteChannels(dir / "aov.exr", kAov, px);
  WriteChannels(dir / "rgba.exr", {"R", "G", "B", "A"}, px);
  const Args lens = Split("--distortion -60 --undistorted-size 52x36");
  const RunResult r = RunOk(Cat({"render", dir / "aov.exr", dir / "aov_u.exr", "-v"}, lens));
  RunOk(Cat({"render", dir / "rgba.exr", dir / "rgba_u.exr"}, lens));
  // (OpenEXR keeps its channels sorted by name.)
  EXPECT_NE(r.out.find("filters: R,G,B Lanczos-2 (colour); A Lanczos-2 (alpha); Z Nearest "
                       "(depth); objectId Nearest (ID); N.x,N.y,N.z BiLinear (normal)\n"),
            std::string::npos)
      << r.out;
  EXPECT_EQ(r.err.find("negative"), std::string::npos) << r.err;
  const Image aov = ReadImage(dir / "aov_u.exr"), rgba = ReadImage(dir / "rgba_u.exr");
  EXPECT_EQ(aov.spec.get_string_attribute("veltrisca:filter"), "Lanczos-2");
  EXPECT_EQ(aov.spec.get_string_attribute("veltrisca:channelFilters"),
            "R,G,B,A Lanczos-2; Z,objectId Nearest; N.x,N.y,N.z BiLinear");
  for (const char* c : {"R", "G", "B", "A"}) EXPECT_EQ(Channel(aov, c), Channel(rgba, c)) << c;
  // Values the plate holds (bilinear of a constant is that constant), and 0 beyond the plate.
  const std::pair<const char*, std::set<float>> kept[] = {
      {"N.z", {-1}}, {"Z", {1, 10}}, {"objectId", {3, 7, 11}}};
  for (const auto& [name, values] : kept) {
    const std::vector<float> v = Channel(aov, name);
    std::set<float> got(v.begin(), v.end());
    got.erase(0.0f);
    EXPECT_EQ(got, values) << name;
  }
  const std::vector<float> nx = Channel(aov, "N.x");
  EXPECT_LT(*std::min_element(nx.begin(), nx.end()), -0.9f);
}

// --channel-filter: the last matching pattern wins, and a data channel a kernel filter clips is
// warned about by name.
TEST(ChannelFilters, PatternsOverrideTheDefaults) {
  ScratchDir dir;
  WriteChannels(dir / "aov.exr", kAov, AovPixels());
  const RunResult r = RunOk(Split(
      "render IN OUT -v --distortion -60 --channel-filter *=nearest --channel-filter N.*=mitchell "
      "--channel-filter N.x=bilinear --channel-filter nothing*=nearest",
      dir / "aov.exr", dir / "o.exr"));
  EXPECT_NE(r.out.find("filters: R,G,B,A,Z,objectId Nearest (--channel-filter *=nearest); N.x "
                       "BiLinear (--channel-filter N.x=bilinear); N.y,N.z Mitchell-Netravali "
                       "(--channel-filter N.*=mitchell)\n"),
            std::string::npos)
      << r.out;
  EXPECT_NE(r.err.find("warning: negative values in N.z,"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("--channel-filter nothing*=nearest sets no channel"), std::string::npos);
  const std::vector<float> nz = Channel(ReadImage(dir / "o.exr"), "N.z");
  EXPECT_EQ(*std::min_element(nz.begin(), nz.end()), 0.0f);  // clipped, as asked
}

TEST(ChannelFilters, MalformedValuesAreRefused) {
  ScratchDir dir;
  WriteChannels(dir / "aov.exr", kAov, AovPixels());
  for (const char* value : {"N.*", "=nearest", "N.*=", "N.*=cubic"}) {
    const RunResult r =
        RunTool({"render", dir / "aov.exr", dir / "o.exr", "--channel-filter", value});
    ExpectRefusal(r, veltrisca::kExitUsage, "--channel-filter", value);
  }
  EXPECT_FALSE(fs::exists(dir / "o.exr"));
}

// Every writer here is refused, before any pixel is read, the channel counts it cannot hold
// (it would abort, fail late or drop channels): exit 2, the limit named, nothing left behind.
TEST(WriterLimits, ChannelCountsAWriterCannotHoldAreRefused) {
  ScratchDir dir;
  const std::vector<float> px = AovPixels();
  WriteChannels(dir / "nine.exr", kAov, px);
  WriteChannels(dir / "two.exr", {"R", "Z"}, px);
  WriteChannels(dir / "one.exr", {"Z"}, px);
  // Input, extension, mentions.
  const std::tuple<const char*, const char*, const char*> refused[] = {
      {"nine", "dpx", "DPX files hold 1, 3 or 4 channels; the output has 9 channels"},
      {"two", "dpx", "DPX files hold 1, 3 or 4 channels; the output has 2"},
      {"nine", "png", "PNG files hold 1, 2, 3 or 4 channels"},
      {"nine", "fits", "FITS files hold 1, 2, 3 or 4"},
      {"nine", "tga", "Targa files hold 1, 2, 3 or 4"},
      {"nine", "ico", "ICO files hold 1, 2, 3 or 4"},
      {"two", "bmp", "BMP files hold 1, 3 or 4"},
      {"two", "jp2", "JPEG 2000 files hold 1, 3 or 4"},
      {"two", "pnm", "PNM files hold 1 or 3"},
      {"two", "jpg", "JPEG files hold 1 or 3"},
      {"one", "iff", "IFF files hold 3 or 4"},
      {"one", "gif", "GIF files hold 3 or 4"},
      {"one", "heif", "HEIF files hold 3 or 4"},
      {"one", "webp", "WebP files hold 3 or 4"},
      {"two", "hdr", "Radiance HDR files hold 3 channels"},
      {"two", "zfile", "Zfile files hold 1 channel;"},
      {"one", "null", "writes no image file"},
      {"one", "term", "writes no image file"},
  };
  const Snapshot before = Take(dir.path());
  for (const auto& [input, ext, mentions] : refused) {
    const std::string label = std::string(input) + " -> " + ext;
    ExpectRefusal(RunTool({"render", dir / (std::string(input) + ".exr"),
                           dir / (std::string("o.") + ext), "--alpha", "none"}),
                  veltrisca::kExitIo, mentions, label);
    EXPECT_EQ(Take(dir.path()), before) << label;
  }
  // What the writers hold, they write whole.
  const std::tuple<const char*, const char*, int> written[] = {
      {"nine", "tif", 9}, {"nine", "sgi", 9}, {"nine", "rla", 9}, {"one", "dpx", 1},
      {"one", "jpg", 1},  {"two", "png", 2},  {"two", "fits", 2}};
  for (const auto& [input, ext, channels] : written) {
    const std::string out = dir / (std::string("w.") + ext);
    RunOk({"render", dir / (std::string(input) + ".exr"), out, "--alpha", "none", "-q"});
    EXPECT_EQ(ReadImage(out).channels, channels) << input << " -> " << ext;
  }
}

}  // namespace
