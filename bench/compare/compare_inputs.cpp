// Writes the inputs of the command-line peers into a folder, for one frame size:
//   img_WxH_8.tif, img_WxH_16.tif, img_WxH_float.tif   RGBA test pattern, uncompressed
//   frame_WxH_8.gbrap, frame_WxH_16.gbrap16le          the same as raw planar video frames
//                                                      (planes G, B, R, A; 16-bit little-endian)
//   st_WxH_remove.exr, st_WxH_apply.exr                ST maps of the lens: channel 0 = s,
//                                                      channel 1 = t, the input position of
//                                                      each output pixel normalised to [0, 1]
//                                                      with pixel centres at (i + 0.5) / size
// It first checks the lens map against figures worked out by hand and fails if they differ.
//
//   compare_inputs --size 3840x2160 --out DIR
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <OpenImageIO/imageio.h>

#include "Common.h"
#include "LensMap.h"

namespace {

using OIIO::ImageOutput;
using OIIO::ImageSpec;
using OIIO::TypeDesc;

bool WriteImage(const std::string& path, const ImageSpec& spec, const void* pixels) {
  auto out = ImageOutput::create(path);
  if (!out || !out->open(path, spec) || !out->write_image(spec.format, pixels)) {
    std::fprintf(stderr, "compare_inputs: cannot write %s: %s\n", path.c_str(),
                 out ? out->geterror().c_str() : OIIO::geterror().c_str());
    return false;
  }
  return out->close();
}

// Remove at 1920x1080, k2 = -0.05: the output corner (0, 0) lies at u = (-16/9, -1), |u|^2 =
// 337/81, so it reads the input at u * (1 - 0.05 * 337/81) = u * 0.791975..., i.e. at
// (960 - 960 * 0.791975, 540 - 540 * 0.791975) = (199.704, 112.333). Apply maps that point
// back to (0, 0).
bool CheckLensMap() {
  compare::QuadraticLens lens;
  lens.width = 1920;
  lens.height = 1080;
  lens.k2 = -0.05;
  float x, y;
  compare::MapOutputToInput(compare::PlanLensMap(lens), 0.0f, 0.0f, &x, &y);
  const double factor = 1.0 - 0.05 * 337.0 / 81.0;
  const bool removeOk = std::fabs(x - (960.0 - 960.0 * factor)) < 0.01 &&
                        std::fabs(y - (540.0 - 540.0 * factor)) < 0.01;
  lens.direction = compare::LensDirection::Apply;
  float bx, by;
  compare::MapOutputToInput(compare::PlanLensMap(lens), x, y, &bx, &by);
  const bool applyOk = std::fabs(bx) < 0.02 && std::fabs(by) < 0.02;
  if (!removeOk || !applyOk) {
    std::fprintf(stderr,
                 "compare_inputs: lens map check failed: remove (0,0) -> (%.4f, %.4f), "
                 "apply back -> (%.4f, %.4f)\n",
                 x, y, bx, by);
  }
  return removeOk && applyOk;
}

}  // namespace

int main(int argc, char** argv) {
  int width = 0, height = 0;
  std::string dir;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    if (name == "--size") {
      std::sscanf(argv[i + 1], "%dx%d", &width, &height);
    } else if (name == "--out") {
      dir = argv[i + 1];
    }
  }
  if (width <= 0 || height <= 0 || dir.empty()) {
    std::fprintf(stderr, "usage: compare_inputs --size WxH --out DIR\n");
    return 2;
  }
  if (!CheckLensMap()) return 1;
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  const size_t pixels = static_cast<size_t>(width) * height;

  std::vector<float> rgba(pixels * 4);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < 4; ++c) {
        rgba[(static_cast<size_t>(y) * width + x) * 4 + c] =
            compare::PatternValue(x, y, c, width, height);
      }
    }
  }
  std::vector<uint8_t> rgba8(pixels * 4);
  std::vector<uint16_t> rgba16(pixels * 4);
  for (size_t i = 0; i < rgba.size(); ++i) {
    rgba8[i] = static_cast<uint8_t>(rgba[i] * 255.0f + 0.5f);
    rgba16[i] = static_cast<uint16_t>(rgba[i] * 65535.0f + 0.5f);
  }

  ImageSpec spec(width, height, 4, TypeDesc::UINT8);
  spec.attribute("compression", "none");
  bool ok = WriteImage(dir + "/img_" + size + "_8.tif", spec, rgba8.data());
  spec.set_format(TypeDesc::UINT16);
  ok = ok && WriteImage(dir + "/img_" + size + "_16.tif", spec, rgba16.data());
  spec.set_format(TypeDesc::FLOAT);
  ok = ok && WriteImage(dir + "/img_" + size + "_float.tif", spec, rgba.data());

  // Planar G, B, R, A for the video tool.
  static const int kPlaneChannel[4] = {1, 2, 0, 3};
  {
    std::ofstream raw8(dir + "/frame_" + size + "_8.gbrap", std::ios::binary);
    std::ofstream raw16(dir + "/frame_" + size + "_16.gbrap16le", std::ios::binary);
    std::vector<uint8_t> plane8(pixels);
    std::vector<uint8_t> plane16(pixels * 2);
    for (int channel : kPlaneChannel) {
      for (size_t i = 0; i < pixels; ++i) {
        plane8[i] = rgba8[i * 4 + channel];
        const uint16_t v = rgba16[i * 4 + channel];
        plane16[2 * i] = static_cast<uint8_t>(v & 0xFF);
        plane16[2 * i + 1] = static_cast<uint8_t>(v >> 8);
      }
      raw8.write(reinterpret_cast<const char*>(plane8.data()), plane8.size());
      raw16.write(reinterpret_cast<const char*>(plane16.data()), plane16.size());
    }
    ok = ok && raw8.good() && raw16.good();
  }

  // ST maps.
  std::vector<float> mapX(pixels), mapY(pixels), st(pixels * 2);
  for (compare::LensDirection direction :
       {compare::LensDirection::Remove, compare::LensDirection::Apply}) {
    compare::QuadraticLens lens;
    lens.width = width;
    lens.height = height;
    lens.k2 = -0.05;
    lens.direction = direction;
    compare::BuildLensMapRows(compare::PlanLensMap(lens), 0, height, mapX.data(), mapY.data(),
                              width);
    for (size_t i = 0; i < pixels; ++i) {
      st[2 * i] = (mapX[i] + 0.5f) / static_cast<float>(width);
      st[2 * i + 1] = (mapY[i] + 0.5f) / static_cast<float>(height);
    }
    ImageSpec stSpec(width, height, 2, TypeDesc::FLOAT);
    stSpec.channelnames = {"R", "G"};
    stSpec.attribute("compression", "none");
    const char* name = direction == compare::LensDirection::Apply ? "apply" : "remove";
    ok = ok && WriteImage(dir + "/st_" + size + "_" + name + ".exr", stSpec, st.data());
  }
  if (!ok) return 1;
  std::printf("compare_inputs: wrote the %s inputs to %s\n", size.c_str(), dir.c_str());
  return 0;
}
