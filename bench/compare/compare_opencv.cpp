// Times OpenCV's cv::remap on the same lens: per frame the position map is built afresh
// (LensMap.h, rows shared out with cv::parallel_for_) and then the frame is remapped, each
// timed on its own. Prints the map, the remap and their sum per configuration (Common.h),
// and the remap alone on the same map converted to OpenCV's fixed-point form (remap_fixed).
// Each depth starts with an untimed frame; each configuration's first frame is a warm-up
// unless it is long (kKeepFirstFrameSeconds).
//
//   compare_opencv --size 3840x2160 [--filters nearest,linear,cubic,lanczos4]
//                  [--depths 8,16,float] [--modes remove,apply] [--threads 1,2] [--min-time S]
#include <cstdio>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

#include "Common.h"
#include "LensMap.h"

namespace {

struct Interpolation {
  int flag;
  const char* name;
  const char* cls;
};

const Interpolation kInterpolations[] = {
    {cv::INTER_NEAREST, "nearest", "nearest"},
    {cv::INTER_LINEAR, "linear", "bilinear"},
    {cv::INTER_CUBIC, "cubic", "cubic4"},        // 4x4 bicubic
    {cv::INTER_LANCZOS4, "lanczos4", "lanczos"},  // 8x8 Lanczos
};

cv::Mat MakeImage(const std::string& depth, int width, int height) {
  const int type = depth == "8" ? CV_8UC4 : depth == "16" ? CV_16UC4 : CV_32FC4;
  const double scale = depth == "8" ? 255.0 : depth == "16" ? 65535.0 : 1.0;
  cv::Mat image(height, width, type);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int c = 0; c < 4; ++c) {
        const double v = compare::PatternValue(x, y, c, width, height) * scale;
        if (type == CV_8UC4) {
          image.ptr<uchar>(y)[4 * x + c] = cv::saturate_cast<uchar>(v);
        } else if (type == CV_16UC4) {
          image.ptr<ushort>(y)[4 * x + c] = cv::saturate_cast<ushort>(v);
        } else {
          image.ptr<float>(y)[4 * x + c] = static_cast<float>(v);
        }
      }
    }
  }
  return image;
}

void BuildMap(const compare::QuadraticLens& lens, cv::Mat& mapX, cv::Mat& mapY) {
  const compare::LensMapPlan plan = compare::PlanLensMap(lens);
  const int stride = static_cast<int>(mapX.step1());
  cv::parallel_for_(cv::Range(0, lens.height), [&](const cv::Range& rows) {
    compare::BuildLensMapRows(plan, rows.start, rows.end, mapX.ptr<float>(rows.start),
                              mapY.ptr<float>(rows.start), stride);
  });
}

}  // namespace

int main(int argc, char** argv) {
  compare::KeepLargeBlocksMapped();
  compare::CommonOptions options;
  if (!compare::ParseCommonOptions(argc, argv, &options)) return 2;
  const int width = options.width, height = options.height;
  cv::Mat mapX(height, width, CV_32FC1), mapY(height, width, CV_32FC1);

  for (const std::string& depth : options.depths) {
    const cv::Mat source = MakeImage(depth, width, height);
    cv::Mat output(height, width, source.type());
    {  // one untimed frame first, so that the map and output buffers are in place
      compare::QuadraticLens lens;
      lens.width = width;
      lens.height = height;
      lens.k2 = -0.05;
      BuildMap(lens, mapX, mapY);
      cv::remap(source, output, mapX, mapY, cv::INTER_NEAREST, cv::BORDER_CONSTANT,
                cv::Scalar::all(0));
    }
    for (const std::string& mode : options.modes) {
      compare::QuadraticLens lens;
      lens.width = width;
      lens.height = height;
      lens.k2 = -0.05;
      lens.direction = mode == "apply" ? compare::LensDirection::Apply
                                       : compare::LensDirection::Remove;
      for (const Interpolation& interp : kInterpolations) {
        if (!options.filters.empty()) {
          bool wanted = false;
          for (const std::string& name : options.filters) wanted |= name == interp.name;
          if (!wanted) continue;
        }
        for (int threads : options.threads) {
          cv::setNumThreads(threads);
          // The same map in OpenCV's fixed-point form (converted once, outside the timing),
          // as a user who reuses one map for a shot may keep it: remap alone on it.
          cv::Mat fixedXY, fixedFraction;
          BuildMap(lens, mapX, mapY);
          cv::convertMaps(mapX, mapY, fixedXY, fixedFraction, CV_16SC2,
                          interp.flag == cv::INTER_NEAREST);
          auto fixedFrame = [&](double* remapSeconds) {
            const double t0 = compare::NowSeconds();
            cv::remap(source, output, fixedXY, fixedFraction, interp.flag, cv::BORDER_CONSTANT,
                      cv::Scalar::all(0));
            *remapSeconds += compare::NowSeconds() - t0;
          };
          auto frame = [&](double* mapSeconds, double* remapSeconds) {
            const double t0 = compare::NowSeconds();
            BuildMap(lens, mapX, mapY);
            const double t1 = compare::NowSeconds();
            cv::remap(source, output, mapX, mapY, interp.flag, cv::BORDER_CONSTANT,
                      cv::Scalar::all(0));
            const double t2 = compare::NowSeconds();
            *mapSeconds += t1 - t0;
            *remapSeconds += t2 - t1;
          };
          // The first frame warms up unless it is long (as in compare_ours).
          double mapSeconds = 0, remapSeconds = 0;
          try {
            frame(&mapSeconds, &remapSeconds);
            if (mapSeconds + remapSeconds < compare::kKeepFirstFrameSeconds) {
              const int frames = compare::FramesFor(mapSeconds + remapSeconds, options.minSeconds);
              mapSeconds = remapSeconds = 0;
              for (int i = 0; i < frames; ++i) frame(&mapSeconds, &remapSeconds);
              mapSeconds /= frames;
              remapSeconds /= frames;
            }
          } catch (const cv::Exception& e) {
            compare::PrintNotAvailable("opencv", interp.name, interp.cls, mode, depth, threads,
                                       width, height, e.what());
            continue;
          }
          compare::PrintResult("opencv", interp.name, interp.cls, mode, depth, threads, width,
                               height, "map", mapSeconds);
          compare::PrintResult("opencv", interp.name, interp.cls, mode, depth, threads, width,
                               height, "remap", remapSeconds);
          compare::PrintResult("opencv", interp.name, interp.cls, mode, depth, threads, width,
                               height, "total", mapSeconds + remapSeconds);
          try {
            double fixedSeconds = 0;
            fixedFrame(&fixedSeconds);  // warm-up
            const int frames = compare::FramesFor(fixedSeconds, options.minSeconds);
            fixedSeconds = 0;
            for (int i = 0; i < frames; ++i) fixedFrame(&fixedSeconds);
            compare::PrintResult("opencv", interp.name, interp.cls, mode, depth, threads, width,
                                 height, "remap_fixed", fixedSeconds / frames);
          } catch (const cv::Exception& e) {
            compare::PrintNotAvailable("opencv", interp.name, interp.cls, mode, depth, threads,
                                       width, height, e.what());
          }
        }
      }
    }
  }
  return 0;
}
