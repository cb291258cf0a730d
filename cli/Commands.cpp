#include "Commands.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <functional>
#include <new>

#include "AtomicFile.h"
#include "Chart.h"
#include "CliError.h"
#include "ImageIO.h"
#include "InfoReport.h"
#include "LensFile.h"
#include "LensImport.h"
#include "Memory.h"
#include "Session.h"
#include "StMap.h"

namespace veltrisca {

using hostsim::Depth;

int RunInfo(const InfoCommand& command, const std::string& plugin, std::ostream& out) {
  const LensSettings settings = ParseLensOptions(command.lens);
  const ImageSize layer = ParseSize("--size", command.size);
  const PF_LRect request = command.request.empty()
                               ? PF_LRect{0, 0, layer.width, layer.height}
                               : ParseRect("--request", command.request);
  const LensSizes sizes = ResolveSizes(settings, layer);
  const long long pixels = static_cast<long long>(layer.width) * layer.height;
  CheckMemory(WorldBytes(pixels, Depth::k8), AvailableMemoryBytes(),
              "a " + command.size + " input layer");

  const auto module = LoadEffect(ResolvePluginPath(plugin));
  EffectSession session(*module, ToParamValues(settings, sizes), 0);
  // The layer's pixels do not matter to the pre-render, only its extent.
  hostsim::World world(Depth::k8, layer.width, layer.height);
  session.SetInputLayer(&world);
  InfoResult info;
  info.about = session.about();
  info.layer = layer;
  info.back = session.PreRender(request);
  session.Finish();

  if (command.json) {
    WriteInfoJson(out, info, command.table);
  } else {
    WriteInfoText(out, info);
  }
  return kExitOk;
}

namespace {

// Pixels of a rectangle's area, refusing one whose world could not exist at all.
long long CheckedPixels(const PF_LRect& r, Depth depth, const std::string& what) {
  const long long w = static_cast<long long>(r.right) - r.left;
  const long long h = static_cast<long long>(r.bottom) - r.top;
  const long long perPixel = hostsim::PixelBytes(depth);
  if (w > INT_MAX || h > INT_MAX ||
      static_cast<unsigned long long>(w) * perPixel >
          hostsim::kMaxWorldBytes / static_cast<unsigned long long>(h)) {
    throw IoError(what + " of " + std::to_string(w) + " x " + std::to_string(h) +
                  " pixels exceeds the host's " + ByteText(hostsim::kMaxWorldBytes) +
                  " per image buffer");
  }
  return w * h;
}

std::string HalfPixelNote(const DefaultWindow& w, const LensSizes& sizes) {
  std::string axes;
  if (w.halfPixelX) {
    axes = "widths " + std::to_string(sizes.distorted.width) + " and " +
           std::to_string(sizes.undistorted.width);
  }
  if (w.halfPixelY) {
    axes += (axes.empty() ? "heights " : ", heights ") + std::to_string(sizes.distorted.height) +
            " and " + std::to_string(sizes.undistorted.height);
  }
  return "note: the margin between the distorted and undistorted " + axes +
         " is odd; the output window " + RectText(w.rect) +
         " sits half a pixel off the lens centre\n";
}

}  // namespace

int RunRender(const RenderCommand& command, const std::string& plugin, std::ostream& note) {
  const LensSettings settings = ParseLensOptions(command.lens);
  const int threads = ParseInt("--threads", command.threads, 0, kMaxThreads);
  const bool haveWindow = !command.window.empty();
  PF_LRect window{};
  if (haveWindow) {
    window = ParseRect("--window", command.window);
    if (IsEmpty(window)) throw UsageError("--window: " + command.window + " is empty");
  }
  if (SameFile(command.input, command.output)) {
    throw UsageError("OUT is the same file as IN (" + command.output +
                     "); write the result to another file");
  }

  InputImage input = OpenInputImage(command.input);
  const ImageSize layer{input.spec.width, input.spec.height};
  const LensSizes sizes = ResolveSizes(settings, layer);
  const OutputLayout layout = ChooseOutputLayout(input, command.alpha);
  CheckWritable(command.output, layout);
  const long long layerPixels =
      CheckedPixels(PF_LRect{0, 0, layer.width, layer.height}, input.depth, "the input layer");

  const auto module = LoadEffect(ResolvePluginPath(plugin));
  const hostsim::ParamValues params = ToParamValues(settings, sizes);
  if (!haveWindow) {
    // The default window follows from the effect's own output frame and lens centre. A
    // pre-render on a host that supplies no input tells them without any pixels in memory.
    EffectSession plan(*module, params, threads);
    plan.OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
    const PreRenderReadBack back = plan.PreRender(PF_LRect{0, 0, layer.width, layer.height});
    plan.Finish();
    const DefaultWindow w =
        settings.mode == kModeApply
            ? ApplyWindow(back.lens.pixOffsetX, back.lens.pixOffsetY, sizes.distorted)
            : RemoveWindow(back.lens.maxResultRect, sizes);
    if (IsEmpty(w.rect)) {
      throw EffectError("the effect's output frame " + RectText(back.lens.maxResultRect) +
                        " is empty; nothing to render");
    }
    if (w.halfPixelX || w.halfPixelY) note << "veltrisca: " << HalfPixelNote(w, sizes);
    window = w.rect;
  }
  const long long windowPixels = CheckedPixels(window, input.depth, "the output window");

  // Input file buffer, input layer, the host's copy of the supplied input, output world and
  // output file buffer, all at once at worst.
  const uint64_t need = FileBufferBytes(layerPixels, input.channels, input.depth) +
                        2 * WorldBytes(layerPixels, input.depth) +
                        WorldBytes(windowPixels, input.depth) +
                        FileBufferBytes(windowPixels, layout.channels, input.depth);
  CheckMemory(need, AvailableMemoryBytes(),
              "rendering " + command.input + " into a " + std::to_string(window.right - window.left) +
                  " x " + std::to_string(window.bottom - window.top) + " window");

  TempOutputFile temp(command.output);
  std::unique_ptr<hostsim::World> layerWorld = ReadLayer(input);
  EffectSession session(*module, params, threads);
  session.SetInputLayer(layerWorld.get());
  session.PreRender(window);
  std::unique_ptr<hostsim::World> rendered = session.Render();
  session.Finish();
  layerWorld.reset();
  WriteRenderedImage(temp.path(), command.output, input, layout, rendered.get(), window);
  rendered.reset();
  temp.Commit();
  return kExitOk;
}

int RunChart(const ChartCommand& command) {
  const ImageSize size = ParseSize("--size", command.size);
  WriteChart(command.output, size, command.depth);
  return kExitOk;
}

namespace {

void AddLensOptions(CLI::App* sub, LensOptionText* lens) {
  sub->add_option("--mode", lens->mode, "remove (distorted plate -> undistorted image) or apply")
      ->type_name("MODE")
      ->capture_default_str();
  sub->add_option("--filter", lens->filter,
                  "builtin, nearest, bilinear, lanczos2, lanczos3 or mitchell")
      ->type_name("NAME")
      ->capture_default_str();
  sub->add_option("--distortion", lens->distortion, "DistortionX1000, -20000..20000")
      ->type_name("X")
      ->capture_default_str();
  sub->add_option("--cubic", lens->cubic, "CubicX1000, -20000..20000")
      ->type_name("X")
      ->capture_default_str();
  sub->add_option("--quartic", lens->quartic, "QuarticX1000, -20000..20000")
      ->type_name("X")
      ->capture_default_str();
  sub->add_option("--zoom", lens->zoom, "ZoomFactor, 0..10")->type_name("X")->capture_default_str();
  sub->add_option("--pixel-aspect", lens->pixelAspect, "PixelAspect, 0.1..10")
      ->type_name("X")
      ->capture_default_str();
  sub->add_option("--distorted-size", lens->distortedSize,
                  "DistortedImgSize (default: the input layer in remove, else the undistorted size)")
      ->type_name("WxH");
  sub->add_option("--undistorted-size", lens->undistortedSize,
                  "UndistortedImgSize (default: the input layer in apply, else the distorted size)")
      ->type_name("WxH");
  sub->add_option("--lens", lens->file,
                  "lens file (JSON) for every lens option not given on the command line")
      ->type_name("FILE.json");
}

// Fills the lens options not given on the command line from --lens; returns the keys taken.
std::vector<std::string> ApplyLensFile(const CLI::App* sub, LensOptionText* lens) {
  if (lens->file.empty()) return {};
  return MergeLensFile(lens->file, lens, [sub](const std::string& option) {
    return sub->get_option(option)->count() > 0;
  });
}

constexpr const char* kExitCodes =
    "Exit codes: 0 success, 1 bad command line or option value, 2 input/output error\n"
    "(unreadable or unsupported image, unwritable output, not enough memory),\n"
    "3 the effect could not be loaded or returned an error.";

// Every message is one line: control characters (a file name may hold a line break) are
// written as escapes.
std::string OneLine(const std::string& message) {
  std::string line;
  for (const char c : message) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7f) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", u);
      line += escaped;
    } else {
      line += c;
    }
  }
  return line;
}

// The first word that is neither an option nor the value of --plugin: the command. CLI11 reports
// a mistyped command as a missing one ("A subcommand is required"), so the tool names it.
std::string UnknownCommand(const CLI::App& app, const std::vector<std::string>& args) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--") return std::string();
    if (word == "--plugin") {
      ++i;
      continue;
    }
    if (word.empty() || word[0] == '-') continue;
    const auto named = [&word](const CLI::App* sub) { return sub->check_name(word); };
    return app.get_subcommands(named).empty() ? word : std::string();
  }
  return std::string();
}

std::string CommandNames(const CLI::App& app) {
  std::string names;
  for (const CLI::App* sub : app.get_subcommands(std::function<bool(const CLI::App*)>())) {
    names += (names.empty() ? "" : ", ") + sub->get_name();
  }
  return names;
}

}  // namespace

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  CLI::App app{"veltrisca " + std::string(kToolVersion) +
                   ": runs the Veltrisca Distortion effect outside its host.",
               "veltrisca"};
  app.set_version_flag("--version", kToolVersion, "Print the version (1.2) and exit");
  app.footer(kExitCodes);
  app.fallthrough();
  // An option given twice takes its last value, so scripts can override earlier settings.
  app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app.require_subcommand(1);
  std::string plugin;
  app.add_option("--plugin", plugin,
                 "the effect plug-in to load (default: $VELTRISCA_PLUGIN, else the built one)")
      ->type_name("PATH");

  InfoCommand info;
  CLI::App* infoApp = app.add_subcommand(
      "info", "Run the effect's setup and one smart pre-render, and print what it computed");
  AddLensOptions(infoApp, &info.lens);
  infoApp->add_option("--size", info.size, "input layer size")->type_name("WxH")->capture_default_str();
  infoApp->add_option("--request", info.request,
                      "output rectangle requested, layer pixels (default 0,0,W,H); "
                      "write --request=L,T,R,B when L is negative")
      ->type_name("L,T,R,B");
  infoApp->add_flag("--json", info.json, "print one JSON object");
  infoApp->add_flag("--table", info.table, "with --json: include the inverse radius table");

  RenderCommand render;
  CLI::App* renderApp = app.add_subcommand("render", "Render an image through the effect");
  renderApp->add_option("IN", render.input, "input image")->required();
  renderApp->add_option("OUT", render.output, "output image (written whole or not at all)")
      ->required();
  AddLensOptions(renderApp, &render.lens);
  renderApp->add_option("--threads", render.threads, "render threads (0: all cores)")
      ->type_name("N")
      ->capture_default_str();
  renderApp->add_option("--window", render.window,
                        "output rectangle in layer pixels (default: the output frame in remove, "
                        "the distorted size centred on the lens in apply)")
      ->type_name("L,T,R,B");
  renderApp->add_flag("--alpha", render.alpha, "write an alpha channel even for RGB or grey input");

  ChartCommand chart;
  CLI::App* chartApp = app.add_subcommand("chart", "Write a lens test chart");
  chartApp->add_option("OUT", chart.output, "output image")->required();
  chartApp->add_option("--size", chart.size, "chart size")->type_name("WxH")->capture_default_str();
  chartApp->add_option("--depth", chart.depth,
                       "8, 16, half or float (default: half for .exr, float for .hdr, else 8)")
      ->type_name("D");

  StMapCommand stmap;
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

  LensCommand lens;
  CLI::App* lensApp = app.add_subcommand(
      "lens", "Write a lens file from the lens options, or import a lens from elsewhere");
  AddLensOptions(lensApp, &lens.lens);
  lensApp->add_option("-o,--output", lens.output, "lens file to write (default: standard output)")
      ->type_name("FILE.json");
  AddImportOptions(lensApp, &lens);

  if (const std::string unknown = UnknownCommand(app, args); !unknown.empty()) {
    err << "veltrisca: unknown command '" << OneLine(unknown) << "' (commands: "
        << CommandNames(app) << "; see veltrisca --help)\n";
    return kExitUsage;
  }
  try {
    std::vector<std::string> reversed(args.rbegin(), args.rend());
    app.parse(reversed);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e, out, err);
  } catch (const CLI::CallForVersion& e) {
    return app.exit(e, out, err);
  } catch (const CLI::ParseError& e) {
    err << "veltrisca: " << OneLine(e.what()) << " (see veltrisca --help)\n";
    return kExitUsage;
  }

  try {
    if (*infoApp) {
      ApplyLensFile(infoApp, &info.lens);
      return RunInfo(info, plugin, out);
    }
    if (*renderApp) {
      ApplyLensFile(renderApp, &render.lens);
      return RunRender(render, plugin, err);
    }
    if (*stmapApp) {
      const std::vector<std::string> taken = ApplyLensFile(stmapApp, &stmap.lens);
      stmap.pixelAspectGiven =
          stmapApp->get_option("--pixel-aspect")->count() > 0 ||
          std::find(taken.begin(), taken.end(), "pixelAspect") != taken.end();
      return RunStMap(stmap, plugin, err);
    }
    if (*lensApp) {
      ApplyLensFile(lensApp, &lens.lens);
      return RunLens(lens, plugin, out, err);
    }
    return RunChart(chart);
  } catch (const CliError& e) {
    err << "veltrisca: " << OneLine(e.what()) << "\n";
    return e.exitCode();
  } catch (const std::bad_alloc&) {
    err << "veltrisca: out of memory\n";
    return kExitIo;
  } catch (const std::exception& e) {
    err << "veltrisca: " << OneLine(e.what()) << "\n";
    return kExitIo;
  }
}

}  // namespace veltrisca
