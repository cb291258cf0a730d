#include "cli/stmap/StMap.h"

#include <CLI/CLI.hpp>

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <memory>
#include <optional>

#include "cli/shared/AtomicFile.h"
#include "cli/image/OutputFile.h"
#include "cli/shared/Errors.h"
#include "cli/image/ImageGeometry.h"
#include "cli/lens/LensFile.h"
#include "cli/image/ImageIO.h"
#include "cli/shared/Memory.h"
#include "cli/session/EffectSession.h"
#include "cli/session/Positions.h"

namespace veltrisca {

namespace {

bool EndsWithExr(const std::string& path) {
  if (path.size() < 4) return false;
  std::string ext = path.substr(path.size() - 4);
  for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return ext == ".exr";
}

// One direction of the map: the lens record of its pre-render, the frame and the coverage.
struct Direction {
  int mode = kModeRemove;
  ImageSize input;        // the input frame (the layer) that s and t are measured in
  PF_LRect frame{};       // the output frame: the display window
  VtAFXLensData lens{};   // as the pre-render left it
  std::vector<uint8_t> covered;  // per data-window pixel: the render shows the input there
  bool halfPixel = false;        // the frame sits half a pixel off the lens centre
};

// The layer of a direction: the distorted plate in Remove, the undistorted image in Apply.
ImageSize LayerOf(int mode, const LensSizes& sizes) {
  return mode == kModeApply ? sizes.undistorted : sizes.distorted;
}

// Pre-render without input (it tells the output frame and fills the lens record).
Direction Plan(const hostsim::PluginModule& module, const LensSettings& settings, int mode,
               const LensSizes& sizes, int threads) {
  Direction d;
  d.mode = mode;
  d.input = LayerOf(mode, sizes);
  LensSettings s = settings;
  s.mode = mode;
  EffectSession plan(module, ToParamValues(s, sizes), threads);
  plan.OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
  const PreRenderReadBack back = plan.PreRender(PF_LRect{0, 0, d.input.width, d.input.height});
  plan.Finish();
  const DefaultWindow w = mode == kModeApply
                              ? ApplyWindow(back.lens.pixOffsetX, back.lens.pixOffsetY,
                                            sizes.distorted)
                              : RemoveWindow(back.lens.maxResultRect, sizes, s.pixelAspect);
  if (IsEmptyRect(&w.rect)) {
    throw EffectError("the effect's output frame " + RectText(back.lens.maxResultRect) +
                      " is empty; there is no map to write");
  }
  d.frame = w.rect;
  d.halfPixel = w.halfPixelX || w.halfPixelY;
  return d;
}

// Where the render shows the input: an opaque layer rendered through the effect with the
// chosen filter has alpha there and transparency elsewhere, whatever each sampler's edge rule.
void Cover(const hostsim::PluginModule& module, const LensSettings& settings,
           const LensSizes& sizes, int threads, const PF_LRect& window, Direction* d) {
  LensSettings s = settings;
  s.mode = d->mode;
  hostsim::World layer(Depth::k8, d->input.width, d->input.height);
  layer.Fill(255.0f, 255.0f, 255.0f, 255.0f);
  EffectSession session(module, ToParamValues(s, sizes), threads);
  session.SetInputLayer(&layer);
  const PreRenderReadBack back = session.PreRender(window);
  std::unique_ptr<hostsim::World> rendered = session.Render();
  session.Finish();
  d->lens = back.lens;
  const int w = window.right - window.left;
  const int h = window.bottom - window.top;
  d->covered.assign(static_cast<size_t>(w) * h, 0);
  if (!rendered) return;
  const PF_LRect b = rendered->Bounds();
  for (int y = std::max(b.top, window.top); y < std::min(b.bottom, window.bottom); ++y) {
    for (int x = std::max(b.left, window.left); x < std::min(b.right, window.right); ++x) {
      const float alpha = rendered->Get(x - rendered->originX(), y - rendered->originY(), 0);
      d->covered[static_cast<size_t>(y - window.top) * w + (x - window.left)] = alpha > 0.0f;
    }
  }
}

}  // namespace

int RunStMap(const StMapCommand& command, const std::string& plugin, std::ostream& note) {
  if (!EndsWithExr(command.output)) {
    throw UsageError("OUT must be an OpenEXR file (.exr): ST maps are written in 32-bit float, " +
                     std::string("got ") + command.output);
  }
  // With --like, the lens the image records fills what the command line leaves, as in render.
  std::optional<InputImage> like;
  LensOptionText lensText = command.lens;
  if (!command.like.empty()) {
    like = OpenInputImage(command.like, "none");
    const ImageLens recorded =
        LensForImage(command.lens, ReadRecordedLens(like->spec, command.like), false);
    for (const std::string& n : recorded.notes) note << "veltrisca: " << n << "\n";
    lensText = recorded.lens;
  }
  LensSettings settings = ParseLensOptions(lensText);
  const int threads = ParseInt("--threads", command.threads, 0, kMaxThreads);
  PF_LRect window{};
  const bool haveWindow = !command.window.empty();
  if (haveWindow) {
    window = ParseRect("--window", command.window);
    if (IsEmptyRect(&window)) throw UsageError("--window: " + command.window + " is empty");
  }

  const int firstMode = command.both ? kModeRemove : settings.mode;
  LensSettings first = settings;
  first.mode = firstMode;
  first.pixelAspectGiven = settings.pixelAspectGiven || command.pixelAspectGiven;
  ImageSize layer;
  LensSizes sizes;
  std::optional<LayerPlacement> likeFrame;  // where the lens frame lies in the --like image
  PF_LRect likeDisplay{};
  if (like) {
    // The lens set on the image exactly as render sets it (cli/image/ImageGeometry.h).
    likeDisplay = like->displayWindow;
    const FileLens lens = PlanFileLens(first, *like, false);
    settings.pixelAspect = lens.settings.pixelAspect;
    layer = lens.frame.frame;
    sizes = lens.sizes;
    likeFrame = lens.frame;
  } else {
    layer = ParseSize("--size", command.size);
    sizes = ResolveSizes(first, layer);
  }
  if (!command.like.empty() && SameFile(command.output, command.like)) {
    throw UsageError("OUT is the same file as the --like image (" + command.output + ")");
  }

  const auto module = LoadEffect(ResolvePluginPath(plugin));
  std::vector<Direction> directions;
  directions.push_back(Plan(*module, settings, firstMode, sizes, threads));
  if (command.both) {
    directions.push_back(Plan(*module, settings, kModeApply, sizes, threads));
    const PF_LRect a = directions[0].frame;
    const PF_LRect b = directions[1].frame;
    if (a.left != b.left || a.top != b.top || a.right != b.right || a.bottom != b.bottom) {
      throw UsageError("--both: the remove map's frame " + RectText(a) +
                       " and the apply map's frame " + RectText(b) +
                       " differ (the distorted and undistorted sizes or the pixel aspect make "
                       "them differ); write the two maps to separate files");
    }
  }
  const PF_LRect frame = directions[0].frame;
  if (directions[0].halfPixel) {
    note << "veltrisca: note: the margin between the distorted and undistorted sizes is odd; "
            "the map's frame "
         << RectText(frame) << " sits half a pixel off the lens centre\n";
  }
  if (!haveWindow) window = frame;
  const long long w = static_cast<long long>(window.right) - window.left;
  const long long h = static_cast<long long>(window.bottom) - window.top;
  const int channels = command.both ? 6 : 4;
  if (w > kMaxImageSide * 4LL || h > kMaxImageSide * 4LL) {
    throw UsageError("--window: " + RectText(window) + " is larger than the tool maps (" +
                     std::to_string(kMaxImageSide * 4) + " pixels a side)");
  }
  const uint64_t pixels = static_cast<uint64_t>(w) * static_cast<uint64_t>(h);
  // The map, the positions of one direction (x, y), its coverage as two floats and a byte,
  // and the host's layer twice.
  CheckMemory(FloatBytes(pixels * channels) + FloatBytes(pixels * 2) + FloatBytes(pixels * 2) +
                  pixels + 2 * WorldBytes(static_cast<long long>(layer.width) * layer.height,
                                          Depth::k8),
              "a " + std::to_string(w) + " x " + std::to_string(h) + " map");

  for (Direction& d : directions) Cover(*module, settings, sizes, threads, window, &d);

  // Channels in the file's order: R, G, B, A, then the coverage of each map in --both.
  std::vector<float> pixelsOut(pixels * channels, 0.0f);
  for (size_t m = 0; m < directions.size(); ++m) {
    const Direction& d = directions[m];
    const std::vector<float> xy = MapWindow(d.lens, window);
    // s and t span the input's frame: the layer, or with --like the image's display window
    // (which in Apply on overscan is not the layer), as ST map readers take them.
    float dx = 0, dy = 0;
    ImageSize st = d.input;
    if (likeFrame && m == 0) {
      dx = static_cast<float>(likeFrame->originX - likeDisplay.left);
      dy = static_cast<float>(likeFrame->originY - likeDisplay.top);
      st = ImageSize{likeDisplay.right - likeDisplay.left, likeDisplay.bottom - likeDisplay.top};
    }
    for (size_t i = 0; i < pixels; ++i) {
      float* px = &pixelsOut[i * channels];
      const float s = SCoordinate(xy[2 * i] + dx, st.width);
      const float t = TCoordinate(xy[2 * i + 1] + dy, st.height);
      const float a = d.covered[i] ? 1.0f : 0.0f;
      if (!command.both) {
        px[0] = s;
        px[1] = t;
        px[3] = a;
      } else {
        px[2 * m] = s;
        px[2 * m + 1] = t;
        px[4 + m] = a;
      }
    }
  }

  OIIO::ImageSpec spec(static_cast<int>(w), static_cast<int>(h), channels, OIIO::TypeDesc::FLOAT);
  // With --like the windows are those render writes for the image (file coordinates); else
  // the frame's top left is 0,0.
  const OutputWindows windows =
      likeFrame ? PlaceOutput(firstMode, window, frame, sizes, *likeFrame)
                : OutputWindows{Offset(window, -frame.left, -frame.top),
                                Offset(frame, -frame.left, -frame.top)};
  spec.x = windows.data.left;
  spec.y = windows.data.top;
  spec.full_x = windows.display.left;
  spec.full_y = windows.display.top;
  spec.full_width = windows.display.right - windows.display.left;
  spec.full_height = windows.display.bottom - windows.display.top;
  spec.channelnames = command.both ? std::vector<std::string>{"R", "G", "B", "A", "remove.A",
                                                              "apply.A"}
                                   : std::vector<std::string>{"R", "G", "B", "A"};
  spec.alpha_channel = command.both ? -1 : 3;
  spec.attribute("compression", "zip");
  if (settings.pixelAspect != 1.0) {
    spec.attribute("PixelAspectRatio", static_cast<float>(settings.pixelAspect));
  }
  spec.attribute("Software", "veltrisca stmap");

  TempOutputFile temp(command.output);
  std::unique_ptr<OIIO::ImageOutput> writer = OIIO::ImageOutput::create(temp.path());
  if (!writer) throw IoError(command.output + ": no OpenEXR writer available");
  WriteImageFile(std::move(writer), temp.path(), command.output, spec, OIIO::TypeDesc::FLOAT,
                 pixelsOut.data());
  temp.Commit();
  return kExitOk;
}

CommandEntry AddStMapCommand(CLI::App& app) {
  auto command = std::make_shared<StMapCommand>();
  StMapCommand& stmap = *command;
  CLI::App* stmapApp = app.add_subcommand(
      "stmap", "Write the effect's output-to-input mapping as an ST map (32-bit float EXR)");
  stmapApp->add_option("OUT", stmap.output, "output map, .exr (written whole or not at all)")
      ->required();
  AddLensOptions(stmapApp, &stmap.lens);
  stmapApp->add_option("--size", stmap.size, "input frame size (the layer)")
      ->type_name("WxH")
      ->capture_default_str();
  stmapApp->add_option("--like", stmap.like,
                       "take the frame size, overscan and pixel aspect from this image")
      ->type_name("IMAGE");
  stmapApp->add_flag("--both", stmap.both,
                     "remove map in R,G and apply map in B,A (coverage in remove.A, apply.A)");
  stmapApp->add_option("--window", stmap.window,
                       "data window in layer pixels, for overscan (default: the output frame)")
      ->type_name("L,T,R,B");
  stmapApp->add_option("--threads", stmap.threads, "render threads (0: all cores)")
      ->type_name("N")
      ->capture_default_str();
  AddVerbosity(stmapApp, &stmap.verbose, &stmap.quiet, "print what was written and the time");

  return CommandEntry{stmapApp, [command, stmapApp](const CommandContext& context) {
    const std::vector<std::string> taken = ApplyLensFile(stmapApp, &command->lens);
    const ParamEntry& aspect = Param(kParamPixelAspect);
    command->pixelAspectGiven =
        stmapApp->get_option(aspect.option)->count() > 0 ||
        std::find(taken.begin(), taken.end(), aspect.lensKey) != taken.end();
    std::ostream silent(nullptr);  // -q: notes go nowhere
    const int code = RunStMap(*command, context.plugin, command->quiet ? silent : context.err);
    if (command->verbose && !command->quiet) {
      ReportWritten(command->output, context.started, context.out);
    }
    return code;
  }};
}

}  // namespace veltrisca
