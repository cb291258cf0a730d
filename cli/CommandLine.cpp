#include "cli/CommandLine.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <new>
#include <optional>

#include "cli/chart/Chart.h"
#include "cli/shared/Errors.h"
#include "common/Version.h"
#include "cli/lens/Fit.h"
#include "cli/image/ImageGeometry.h"
#include "cli/image/ImageIO.h"
#include "cli/info/InfoReport.h"
#include "cli/lens/LensFile.h"
#include "cli/lens/LensImport.h"
#include "cli/shared/Memory.h"
#include "cli/image/OutputFile.h"
#include "cli/render/Progress.h"
#include "cli/render/ShotPipeline.h"
#include "cli/session/EffectSession.h"
#include "cli/stmap/StMap.h"

namespace veltrisca {

int RunInfo(const InfoCommand& command, const std::string& plugin, std::ostream& out) {
  LensSettings settings = ParseLensOptions(command.lens);
  ImageSize layer = ParseSize("--size", command.size);
  LensSizes sizes;
  std::optional<RecordedLens> recorded;
  std::vector<std::string> lensNotes;
  if (!command.image.empty()) {
    // The lens the image records, the frame, the overscan and the pixel aspect of an image
    // file, as render reads them.
    const InputImage image = OpenInputImage(command.image, "");
    recorded = ReadRecordedLens(image.spec, command.image);
    const ImageLens lens = LensForImage(command.lens, recorded, false);
    lensNotes = lens.notes;
    const FileLens file = PlanFileLens(ParseLensOptions(lens.lens), image, false);
    settings = file.settings;
    layer = file.frame.frame;
    sizes = file.sizes;
  } else {
    sizes = ResolveSizes(settings, layer);
  }
  const PF_LRect request = command.request.empty()
                               ? PF_LRect{0, 0, layer.width, layer.height}
                               : ParseRect("--request", command.request);
  const long long pixels = static_cast<long long>(layer.width) * layer.height;
  CheckMemory(WorldBytes(pixels, Depth::k8), AvailableMemoryBytes(),
              "a " + std::to_string(layer.width) + "x" + std::to_string(layer.height) +
                  " input layer");

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
  info.recorded = recorded;
  info.lensNotes = lensNotes;
  info.aspect = AspectText(settings, sizes);
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

int RunRender(const RenderCommand& command, const std::string& plugin, std::ostream& out,
              std::ostream& err) {
  const FrameSelection selection = SelectFrames(command.input, command.output, command.frames);
  const ProgressStyle style =
      command.progress.empty()
          ? (command.quiet ? ProgressStyle::kNone
                           : ParseProgressStyle("auto", isatty(STDERR_FILENO) != 0))
          : ParseProgressStyle(command.progress, isatty(STDERR_FILENO) != 0);
  RenderJob job = MakeRenderJob(command, plugin);
  Notes notes(err, command.quiet);
  Progress progress(style, static_cast<int>(selection.frames.size()), !selection.numbered, out,
                    err);
  return RenderSelection(job, selection, SequenceOptions{command.keepGoing, command.skipExisting},
                         progress, notes, out, err);
}

int RunChart(const ChartCommand& command) {
  const ImageSize size = ParseSize("--size", command.size);
  WriteChart(command.output, size, command.depth);
  return kExitOk;
}

namespace {

// -v and -q: every command takes both.
void AddVerbosity(CLI::App* sub, bool* verbose, bool* quiet, const std::string& verboseHelp) {
  sub->add_flag("-v,--verbose", *verbose, verboseHelp);
  sub->add_flag("-q,--quiet", *quiet, "print nothing but errors");
}

// -v of the commands that write one file: what was written (an image's size, channels, type
// and format, from its header) and how long it took.
void ReportWritten(const std::string& path, bool image,
                   std::chrono::steady_clock::time_point started, std::ostream& out) {
  char time[32];
  std::snprintf(time, sizeof time, "%.2f s",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  out << "wrote " << path;
  if (auto in = image ? OIIO::ImageInput::open(path) : nullptr) {
    const OIIO::ImageSpec& s = in->spec();
    out << ": " << s.width << "x" << s.height << ", " << s.nchannels << " channels, "
        << TypeName(s.format) << " " << in->format_name();
  } else if (image) {
    OIIO::geterror();  // written a moment ago; say no more than the path
  }
  out << ", " << time << "\n";
}

// The help of a lens option, from the parameter table: the choices of a popup (with their
// glosses), a slider's host name and range, a point's host name; then the table's remark.
std::string LensOptionHelp(const ParamEntry& param) {
  std::string help;
  if (param.kind == ParamKind::kPopup) {
    for (int c = 0; c < param.choiceCount; ++c) {
      help += c == 0 ? "" : c + 1 == param.choiceCount ? " or " : ", ";
      help += param.choices[c].word;
      if (param.choices[c].gloss) help += std::string(" (") + param.choices[c].gloss + ")";
    }
  } else {
    help = param.hostName;
    if (param.kind == ParamKind::kFloatSlider) help += ", " + RangeText(param.range);
  }
  return *param.help ? help + " " + param.help : help;
}

void AddLensOptions(CLI::App* sub, LensOptionText* lens) {
  for (const ParamEntry* param : LensOptionOrder()) {
    CLI::Option* option =
        sub->add_option(param->option, (*lens)[param->index], LensOptionHelp(*param))
            ->type_name(param->valueName);
    if (!param->defaultFromImage) option->capture_default_str();
  }
  sub->add_option("--lens", lens->file,
                  "lens file (JSON), or an image that records a lens (all but its mode), for "
                  "every lens option not given on the command line")
      ->type_name("FILE.json|IMAGE");
}

// Fills the lens options not given on the command line from --lens and notes which options
// are given; returns the keys taken from --lens.
std::vector<std::string> ApplyLensFile(const CLI::App* sub, LensOptionText* lens) {
  const auto onCommandLine = [sub](const std::string& option) {
    return sub->get_option(option)->count() > 0;
  };
  std::vector<std::string> taken;
  if (!lens->file.empty()) taken = MergeLensFile(lens->file, lens, onCommandLine);
  lens->given = GivenLensKeys(onCommandLine, taken);
  return taken;
}

constexpr const char* kExitCodes =
    "Exit codes: 0 success, 1 bad command line or option value, 2 input/output error\n"
    "(unreadable or unsupported image, unwritable output, not enough memory),\n"
    "3 the effect could not be loaded or returned an error.";

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

// The option `name` ("--alpha", "-d") of `app` or, through fallthrough, of the tool.
const CLI::Option* FindOption(const CLI::App* app, const std::string& name) {
  for (; app; app = app->get_parent()) {
    if (const CLI::Option* option = app->get_option_no_throw(name)) return option;
  }
  return nullptr;
}

// Edits (insertions, deletions, substitutions, swaps of neighbours) from a to b.
size_t EditDistance(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    for (size_t j = 1; j <= b.size(); ++j) {
      d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                          d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

// The known long option nearest to a mistyped one ("--distorsion" -> "--distortion"): the only
// one it abbreviates, else the closest within a third of its letters (at least one edit); ""
// when none is that close.
std::string NearestOption(const CLI::App* app, const std::string& typed) {
  std::vector<std::string> names;
  for (; app; app = app->get_parent()) {
    for (const CLI::Option* option : app->get_options()) {
      for (const std::string& lname : option->get_lnames()) names.push_back("--" + lname);
    }
  }
  std::vector<std::string> abbreviated;
  for (const std::string& name : names) {
    if (typed.size() >= 5 && name.rfind(typed, 0) == 0) abbreviated.push_back(name);
  }
  if (abbreviated.size() == 1) return abbreviated.front();
  std::string best;
  size_t bestDistance = std::max<size_t>(1, (typed.size() - 2) / 3) + 1;
  for (const std::string& name : names) {
    const size_t distance = EditDistance(typed, name);
    if (distance < bestDistance) {
      best = name;
      bestDistance = distance;
    }
  }
  return best;
}

// A word that CLI11 would read as an option: '-' followed by a letter or by another '-'.
// Negative numbers ("-50", "-.5") and lists ("-40,-20,1960,1100") are values.
bool LooksLikeOption(const std::string& word) {
  return word.size() >= 2 && word[0] == '-' &&
         (word[1] == '-' || std::isalpha(static_cast<unsigned char>(word[1])));
}

// Reads the options of the command line as CLI11 will and returns the message of the first it
// refuses (empty when none): an unknown option, with the nearest known one; an option whose
// value is missing because the next word is an option (CLI11 would take "--threads=2" as the
// value of --alpha); "--option=" with nothing after '=' (CLI11 would take the next word).
std::string RefusedOptionWord(const CLI::App& app, const std::vector<std::string>& args) {
  const CLI::App* current = &app;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& word = args[i];
    if (word == "--") break;
    if (!LooksLikeOption(word)) {
      if (current == &app) {
        const auto named = [&word](const CLI::App* sub) { return sub->check_name(word); };
        const auto subs = app.get_subcommands(named);
        if (!subs.empty()) current = subs.front();
      }
      continue;
    }
    const bool isLong = word[1] == '-';
    const size_t equals = isLong ? word.find('=') : std::string::npos;
    const std::string name = isLong ? word.substr(0, equals) : word.substr(0, 2);
    const CLI::Option* option = FindOption(current, name);
    const std::string help = " (see veltrisca" +
                             (current == &app ? std::string() : " " + current->get_name()) +
                             " --help)";
    if (!option) {
      const std::string nearest = isLong ? NearestOption(current, name) : std::string();
      return "unknown option '" + MessageLine(isLong ? name : word) + "'" +
             (nearest.empty() ? help : "; did you mean '" + nearest + "'?");
    }
    if (option->get_items_expected_max() == 0) {
      // Short flags run together (-qv): each further letter is a flag, or an option whose
      // value is the rest of the word.
      for (size_t j = 2; !isLong && j < word.size(); ++j) {
        const CLI::Option* next = FindOption(current, std::string("-") + word[j]);
        if (!next) return "unknown option '-" + MessageLine(word.substr(j, 1)) + "' in '" +
                          MessageLine(word) + "'" + help;
        if (next->get_items_expected_max() > 0) break;
      }
      continue;
    }
    if (equals != std::string::npos || (!isLong && word.size() > 2)) {
      if (equals + 1 == word.size()) {
        return name + ": an empty value after '='; write " + name + "=VALUE or " + name +
               " VALUE";
      }
      continue;  // --option=value, -dVALUE
    }
    if (i + 1 < args.size() && LooksLikeOption(args[i + 1])) {
      return name + ": missing value: the next word '" + MessageLine(args[i + 1]) +
             "' reads as an option (write " + name + "=VALUE for a value that starts with '-')";
    }
    ++i;  // the option's value
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

namespace {

int RunCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  CLI::App app{"veltrisca " + VersionText() +
                   ": runs the Veltrisca Distortion effect outside its host.",
               "veltrisca"};
  app.set_version_flag("--version", VersionText(),
                       "Print the version (" + VersionText() + ") and exit");
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
  AddVerbosity(infoApp, &info.verbose, &info.quiet,
               "accepted for scripts; the report already says everything");

  RenderCommand render;
  CLI::App* renderApp = app.add_subcommand(
      "render", "Render an image, or the frames of a shot, through the effect");
  renderApp->add_option("IN", render.input,
                        "input image, or a sequence: plate.#.exr or plate.####.exr (four digits), "
                        "plate.@@@.exr (one digit per @), plate.%04d.exr, plate.1001-1100#.exr")
      ->required();
  renderApp->add_option("OUT", render.output,
                        "output image, numbered like IN for a sequence (each file written whole "
                        "or not at all)")
      ->required();
  renderApp->add_option("--frames", render.frames,
                        "frames of the sequence: 1001-1100, 1001-1100x2, 1001,1005,1010-1020 or "
                        "1001 (default: the first frame on disk to the last); frames outside the "
                        "sequence on disk are skipped with a note, a missing frame inside it is "
                        "an error")
      ->type_name("LIST");
  renderApp->add_flag("--keep-going", render.keepGoing,
                      "render every frame even after a failure, then list the failed frames "
                      "(the exit code is still non-zero)");
  renderApp->add_flag("--skip-existing", render.skipExisting,
                      "leave frames whose output is already whole and records this lens "
                      "(a cut-off output, or one of another lens, is rendered again)");
  renderApp->add_option("--progress", render.progress,
                        "auto (default: bar on a terminal, else lines), bar, lines (one line a "
                        "frame on stdout), openjd (openjd_progress: lines) or none")
      ->type_name("STYLE");
  renderApp->footer(
      "Sequences: the effect is loaded and set up once for the shot. While a frame renders,\n"
      "the next one is read and the previous one written, so at most two frames' input and\n"
      "two frames' output are in memory at once. Frames are written in order; by default the\n"
      "first failed frame stops the run after the frames before it are written.");
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
  renderApp->add_flag("--desqueeze", render.desqueeze,
                      "remove of an anamorphic plate: resample the result to square pixels "
                      "(default: keep the plate's pixel aspect)");
  renderApp->add_option("--channel-filter", render.channelFilters,
                        "the filter of the channels whose names match a glob, e.g. 'N.*=nearest' "
                        "(repeatable; the last match wins; default: the --filter for colour and "
                        "alpha, bilinear for normals, positions and UVs, nearest for depth, "
                        "motion and IDs)")
      ->type_name("PATTERN=FILTER")
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->allow_extra_args(false);
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
  AddVerbosity(renderApp, &render.verbose, &render.quiet,
               "print what was read and written: sizes, windows, channels, format, time");

  ChartCommand chart;
  CLI::App* chartApp = app.add_subcommand("chart", "Write a lens test chart");
  chartApp->add_option("OUT", chart.output, "output image")->required();
  chartApp->add_option("--size", chart.size, "chart size")->type_name("WxH")->capture_default_str();
  chartApp->add_option("--depth", chart.depth,
                       "8, 16, half or float (default: half for .exr, float for .hdr, else 8)")
      ->type_name("D");
  AddVerbosity(chartApp, &chart.verbose, &chart.quiet, "print what was written and the time");

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
  bool stmapVerbose = false, stmapQuiet = false;
  AddVerbosity(stmapApp, &stmapVerbose, &stmapQuiet, "print what was written and the time");

  LensCommand lens;
  CLI::App* lensApp = app.add_subcommand(
      "lens", "Write a lens file from the lens options, or import a lens from elsewhere");
  AddLensOptions(lensApp, &lens.lens);
  lensApp->add_option("-o,--output", lens.output, "lens file to write (default: standard output)")
      ->type_name("FILE.json");
  AddImportOptions(lensApp, &lens);
  bool lensVerbose = false;
  AddVerbosity(lensApp, &lensVerbose, &lens.quiet,
               "with -o: print what was written and the time (an import always reports)");

  if (const std::string unknown = UnknownCommand(app, args); !unknown.empty()) {
    err << "veltrisca: unknown command '" << MessageLine(unknown) << "' (commands: "
        << CommandNames(app) << "; see veltrisca --help)\n";
    return kExitUsage;
  }
  if (const std::string refused = RefusedOptionWord(app, args); !refused.empty()) {
    err << "veltrisca: " << refused << "\n";
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
    err << "veltrisca: " << MessageLine(e.what()) << " (see veltrisca --help)\n";
    return kExitUsage;
  }

  const auto started = std::chrono::steady_clock::now();
  std::ostream silent(nullptr);  // -q: notes go nowhere
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
          stmapApp->get_option(Param(kParamPixelAspect).option)->count() > 0 ||
          std::find(taken.begin(), taken.end(), Param(kParamPixelAspect).lensKey) != taken.end();
      const int code = RunStMap(stmap, plugin, stmapQuiet ? silent : err);
      if (stmapVerbose && !stmapQuiet) ReportWritten(stmap.output, true, started, out);
      return code;
    }
    if (*lensApp) {
      ApplyLensFile(lensApp, &lens.lens);
      const int code = RunLens(lens, plugin, out, err);
      if (lensVerbose && !lens.quiet && !lens.output.empty()) {
        ReportWritten(lens.output, false, started, out);
      }
      return code;
    }
    const int code = RunChart(chart);
    if (chart.verbose && !chart.quiet) ReportWritten(chart.output, true, started, out);
    return code;
  } catch (const CliError& e) {
    err << "veltrisca: " << MessageLine(e.what()) << "\n";
    return e.exitCode();
  } catch (const std::bad_alloc&) {
    err << "veltrisca: out of memory\n";
    return kExitIo;
  } catch (const std::system_error& e) {
    err << "veltrisca: " << MessageLine(SystemErrorText(e)) << "\n";
    return kExitIo;
  } catch (const std::exception& e) {
    err << "veltrisca: " << MessageLine(e.what()) << "\n";
    return kExitIo;
  }
}

}  // namespace

int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  const int code = RunCommandLine(args, out, err);
  // What a command printed counts only once it is written: a closed pipe or a full disk under
  // standard output fails the command. A failed stream keeps the errno of its failed write.
  if (!out.fail()) {
    errno = 0;
    out.flush();
  }
  if (!out.fail() || code != kExitOk) return code;
  err << "veltrisca: " << StdoutError(errno).what() << "\n";
  return kExitIo;
}

}  // namespace veltrisca
