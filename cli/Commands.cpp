#include "Commands.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <functional>
#include <new>
#include <optional>

#include "AtomicFile.h"
#include "Chart.h"
#include "Fit.h"
#include "Frames.h"
#include "CliError.h"
#include "ImageIO.h"
#include "InfoReport.h"
#include "LensFile.h"
#include "LensImport.h"
#include "Memory.h"
#include "OutputFile.h"
#include "Session.h"
#include "StMap.h"

namespace veltrisca {


int RunInfo(const InfoCommand& command, const std::string& plugin, std::ostream& out) {
  LensSettings settings = ParseLensOptions(command.lens);
  ImageSize layer = ParseSize("--size", command.size);
  std::optional<ImageSize> other;
  if (!command.image.empty()) {
    // The frame, the overscan and the pixel aspect of an image file, as render reads them.
    const InputImage image = OpenInputImage(command.image, "");
    const InputFrame frame = PlaceInput(settings.mode, image.dataWindow, image.displayWindow);
    layer = frame.frame;
    other = frame.other;
    const float fileAspect = image.spec.get_float_attribute("PixelAspectRatio", 0.0f);
    if (!settings.pixelAspectGiven && fileAspect >= kPixelAspectRange.minimum &&
        fileAspect <= kPixelAspectRange.maximum) {
      settings.pixelAspect = fileAspect;
    }
  }
  const PF_LRect request = command.request.empty()
                               ? PF_LRect{0, 0, layer.width, layer.height}
                               : ParseRect("--request", command.request);
  const LensSizes sizes = ResolveSizes(settings, layer, other);
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
  info.image = command.image;
  info.fitSize = FitUndistortedSize(settings, sizes.distorted);
  const DefaultWindow distorted =
      ApplyWindow(info.back.lens.pixOffsetX, info.back.lens.pixOffsetY, sizes.distorted);
  info.beyondInvertible = UnreachableFraction(
      info.back.lens, settings.mode,
      settings.mode == kModeApply ? distorted.rect
                                  : PF_LRect{0, 0, sizes.distorted.width, sizes.distorted.height},
      UndoableRadius(settings, info.back.lens));

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
  const long long perPixel = PixelDepthOf(depth).bytes;
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

namespace {

std::string SizeText(const PF_LRect& r) {
  return std::to_string(static_cast<long long>(r.right) - r.left) + "x" +
         std::to_string(static_cast<long long>(r.bottom) - r.top) + " at " +
         std::to_string(r.left) + "," + std::to_string(r.top);
}

std::string ChannelText(const std::vector<std::string>& names, int alpha) {
  std::string s;
  for (size_t c = 0; c < names.size(); ++c) s += (c ? "," : "") + names[c];
  return s + (alpha >= 0 ? " (alpha " + names[static_cast<size_t>(alpha)] + ")" : " (no alpha)");
}

std::string Percent(double fraction) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f%%", 100.0 * fraction);
  return text;
}

// True when some pixel of the world has a non-zero alpha.
bool AnyAlpha(const hostsim::World* w) {
  if (!w) return false;
  for (int y = 0; y < w->height(); ++y) {
    for (int x = 0; x < w->width(); ++x) {
      if (w->Get(x, y, 0) != 0.0f) return true;
    }
  }
  return false;
}

// True when a float image holds a negative value in a channel other than alpha.
bool HasNegativeColour(const InputImage& input, const PixelBuffer& px) {
  if (px.depth != Depth::kFloat) return false;
  const float* v = reinterpret_cast<const float*>(px.bytes.data());
  const size_t n = px.bytes.size() / sizeof(float);
  for (size_t i = 0; i < n; ++i) {
    if (v[i] < 0.0f && static_cast<int>(i % static_cast<size_t>(px.channels)) != input.alphaIndex) {
      return true;
    }
  }
  return false;
}

constexpr long long kLargeOutputPixels = 100000000;

}  // namespace

int RunRender(const RenderCommand& command, const std::string& plugin, std::ostream& out,
              std::ostream& note) {
  const auto started = std::chrono::steady_clock::now();
  LensSettings settings = ParseLensOptions(command.lens);
  const int threads = ParseInt("--threads", command.threads, 0, kMaxThreads);
  const bool haveWindow = !command.window.empty();
  PF_LRect window{};
  if (haveWindow) {
    window = ParseRect("--window", command.window);
    if (IsEmptyRect(&window)) throw UsageError("--window: " + command.window + " is empty");
  }
  if (command.fit && settings.mode != kModeRemove) {
    throw UsageError("--fit chooses the undistorted size of a remove; apply takes it from the "
                     "input (its data window when that holds overscan)");
  }
  if (command.fit && settings.undistortedSize) {
    throw UsageError("--fit and --undistorted-size both choose the undistorted size; give one");
  }
  if (SameFile(command.input, command.output)) {
    throw UsageError("OUT is the same file as IN (" + command.output +
                     "); write the result to another file");
  }
  const bool warn = !command.quiet;
  auto Note = [&](const std::string& text) {
    if (warn) note << "veltrisca: " << text << "\n";
  };

  InputImage input = OpenInputImage(command.input, command.alpha);
  const InputFrame frame = PlaceInput(settings.mode, input.dataWindow, input.displayWindow);
  if (!settings.pixelAspectGiven) {
    const float fileAspect = input.spec.get_float_attribute("PixelAspectRatio", 0.0f);
    if (fileAspect > 0.0f && fileAspect != 1.0f) {
      if (fileAspect < kPixelAspectRange.minimum || fileAspect > kPixelAspectRange.maximum) {
        throw IoError(command.input + ": its pixel aspect " + std::to_string(fileAspect) +
                      " is outside the effect's 0.1..10; give --pixel-aspect");
      }
      settings.pixelAspect = fileAspect;
    }
  }
  const OutputLayout layout = ChooseOutputLayout(input, command.addAlpha);
  const OutputChoice choice{command.dataType, command.compression};
  const OutputPlan outPlan = PlanOutput(command.output, input, layout, choice);
  LensSizes sizes = ResolveSizes(settings, frame.frame, frame.other);
  const PF_LRect layerRect = Offset(input.dataWindow, -frame.originX, -frame.originY);
  const long long layerPixels = CheckedPixels(layerRect, input.depth, "the input layer");
  if (command.fit) sizes.undistorted = FitUndistortedSize(settings, sizes.distorted);

  const auto module = LoadEffect(ResolvePluginPath(plugin));
  const hostsim::ParamValues params = ToParamValues(settings, sizes);
  // The output frame and the lens centre follow from the effect's own pre-render; on a host
  // that supplies no input it tells them without any pixels in memory.
  EffectSession plan(*module, params, threads);
  plan.OverrideSuppliedRect(PF_LRect{0, 0, 0, 0});
  const PreRenderReadBack back = plan.PreRender(PF_LRect{0, 0, frame.frame.width, frame.frame.height});
  plan.Finish();
  const DefaultWindow outFrame =
      settings.mode == kModeApply
          ? ApplyWindow(back.lens.pixOffsetX, back.lens.pixOffsetY, sizes.distorted)
          : RemoveWindow(back.lens.maxResultRect, sizes);
  if (!haveWindow) {
    if (IsEmptyRect(&outFrame.rect)) {
      throw EffectError("the effect's output frame " + RectText(back.lens.maxResultRect) +
                        " is empty; nothing to render");
    }
    if (outFrame.halfPixelX || outFrame.halfPixelY) {
      Note(HalfPixelNote(outFrame, sizes).substr(0, HalfPixelNote(outFrame, sizes).size() - 1));
    }
    window = outFrame.rect;
  }
  const long long windowPixels = CheckedPixels(window, input.depth, "the output window");
  const OutputWindows windows = PlaceOutput(settings.mode, window, outFrame.rect, sizes, frame);

  // Input file buffer, one pass's input layer and the host's copy of it, output world and
  // output file buffer, all at once at worst.
  const uint64_t need = FileBufferBytes(layerPixels, input.channels, input.depth) +
                        2 * WorldBytes(layerPixels, input.depth) +
                        WorldBytes(windowPixels, input.depth) +
                        FileBufferBytes(windowPixels, layout.channels, input.depth);
  CheckMemory(need, AvailableMemoryBytes(),
              "rendering " + command.input + " into a " +
                  std::to_string(window.right - window.left) + " x " +
                  std::to_string(window.bottom - window.top) + " window");
  if (windowPixels > kLargeOutputPixels) {
    Note("warning: the output is " + std::to_string(windowPixels / 1000000) +
         " megapixels (" + SizeText(window) + ")");
  }
  const PF_LRect distortedFrame =
      settings.mode == kModeApply ? outFrame.rect
                                  : PF_LRect{0, 0, sizes.distorted.width, sizes.distorted.height};
  const double undoable = UndoableRadius(settings, back.lens);
  const double lost = UnreachableFraction(back.lens, settings.mode, distortedFrame, undoable);
  if (lost > 0.0) {
    Note("warning: " + Percent(lost) + " of the distorted frame lies beyond the radius " +
         "the lens can invert (" + std::to_string(undoable) +
         (settings.mode == kModeApply ? "); there the output repeats the edge of what it inverts"
                                      : "); that part of the plate is not in the output"));
  }

  TempOutputFile temp(command.output);
  const PixelBuffer pixels = ReadPixels(input);
  if (IsKernelFilter(settings.filter) && HasNegativeColour(input, pixels)) {
    Note("warning: the input holds negative values, which the " +
         std::string(FilterName(settings.filter)) +
         " filter clips to 0 in float images; nearest, bilinear and builtin keep them");
  }
  PixelBuffer result = NewOutputBuffer(input, layout, window);
  EffectSession session(*module, params, threads);
  const int passes = PassCount(input);
  for (int pass = 0; pass < passes; ++pass) {
    std::unique_ptr<hostsim::World> layer =
        PassLayer(input, pixels, pass, layerRect.left, layerRect.top);
    session.SetInputLayer(layer.get());
    session.PreRender(window);
    std::unique_ptr<hostsim::World> rendered = session.Render();
    if (pass == 0 && !AnyAlpha(rendered.get())) {
      Note("warning: the result is fully transparent: no pixel of the input reaches the output" +
           std::string(settings.zoom == 0.0 ? " (--zoom 0)" : ""));
    }
    StorePass(input, layout, pass, rendered.get(), window, &result);
  }
  session.Finish();

  OIIO::ParamValueList header;
  header.attribute("Software", std::string("veltrisca ") + kToolVersion);
  header.attribute("veltrisca:mode", std::string(ModeName(settings.mode)));
  header.attribute("veltrisca:filter", std::string(FilterName(settings.filter)));
  header.attribute("veltrisca:distortion", static_cast<float>(settings.distortion));
  header.attribute("veltrisca:cubic", static_cast<float>(settings.cubic));
  header.attribute("veltrisca:quartic", static_cast<float>(settings.quartic));
  header.attribute("veltrisca:zoom", static_cast<float>(settings.zoom));
  header.attribute("veltrisca:pixelAspect", static_cast<float>(settings.pixelAspect));
  const int distorted[2] = {sizes.distorted.width, sizes.distorted.height};
  const int undistorted[2] = {sizes.undistorted.width, sizes.undistorted.height};
  header.attribute("veltrisca:distortedSize", OIIO::TypeDesc(OIIO::TypeDesc::INT, 2), distorted);
  header.attribute("veltrisca:undistortedSize", OIIO::TypeDesc(OIIO::TypeDesc::INT, 2),
                   undistorted);
  std::vector<std::string> notes = outPlan.notes;
  WriteOutput(temp.path(), command.output, input, layout, outPlan, windows, result, header,
              command.verbose ? &notes : nullptr);
  temp.Commit();
  for (const std::string& n : outPlan.notes) Note("note: " + n);
  if (command.verbose && !command.quiet) {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    char time[32];
    std::snprintf(time, sizeof time, "%.2f s", seconds);
    std::vector<std::string> inNames;
    for (int c = 0; c < input.channels; ++c) inNames.emplace_back(input.spec.channel_name(c));
    out << "read  " << command.input << ": data " << SizeText(input.dataWindow) << ", display "
        << SizeText(input.displayWindow) << ", " << ChannelText(inNames, input.alphaIndex)
        << ", " << TypeName(input.spec.format) << " " << input.format << "\n";
    out << "wrote " << command.output << ": data " << SizeText(windows.data) << ", display "
        << SizeText(windows.display) << ", " << ChannelText(layout.names, layout.alphaIndex)
        << ", " << TypeName(outPlan.type) << " " << outPlan.format << "; "
        << ModeName(settings.mode) << ", " << FilterName(settings.filter) << ", sizes "
        << sizes.distorted.width << "x" << sizes.distorted.height << " distorted, "
        << sizes.undistorted.width << "x" << sizes.undistorted.height << " undistorted, "
        << passes << (passes == 1 ? " pass, " : " passes, ") << time << "\n";
    for (size_t i = outPlan.notes.size(); i < notes.size(); ++i) out << "  " << notes[i] << "\n";
  }
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
  sub->add_option("--pixel-aspect", lens->pixelAspect,
                  "PixelAspect, 0.1..10 (default: the image file's, else 1)")
      ->type_name("X");
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
  infoApp->add_option("IMAGE", info.image,
                      "an image file: the layer's size, frame and pixel aspect come from it");
  infoApp->add_option("--size", info.size, "input layer size (without IMAGE)")
      ->type_name("WxH")
      ->capture_default_str();
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
  renderApp->add_option("--alpha", render.alpha,
                        "the alpha channel by name, or none (default: the file's alpha, or a "
                        "channel named A or alpha); every other channel is rendered as colour")
      ->type_name("NAME");
  renderApp->add_flag("--add-alpha", render.addAlpha,
                      "write an alpha channel A (the effect's coverage) when the input has none");
  renderApp->add_option("-d", render.dataType,
                        "output sample type: uint8, uint16, half or float (default: the "
                        "input's, where the format holds it)")
      ->type_name("TYPE");
  renderApp->add_option("--compression", render.compression,
                        "output compression, e.g. zip, piz, dwaa:45 (OpenEXR), lzw (TIFF), "
                        "jpeg:90 (JPEG); default: the input's for the same format")
      ->type_name("NAME");
  renderApp->add_flag("--fit", render.fit,
                      "remove: the smallest undistorted size that holds the whole plate "
                      "(written as overscan around the plate's frame)");
  renderApp->add_flag("-v,--verbose", render.verbose,
                      "print what was read and written: sizes, windows, channels, format, time");
  renderApp->add_flag("-q,--quiet", render.quiet, "print nothing but errors");

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
      return RunRender(render, plugin, out, err);
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
