#include "cli/render/RenderCommand.h"

#include <CLI/CLI.hpp>
#include <unistd.h>

#include <memory>

#include "cli/render/ChannelFilters.h"
#include "cli/render/Progress.h"
#include "cli/render/ShotPipeline.h"
#include "cli/session/EffectSession.h"
#include "cli/shared/Errors.h"

namespace veltrisca {

namespace {

// The job of a render command: its options parsed and checked (CliError(kExitUsage)); the
// plug-in is loaded once the frames are found.
RenderJob MakeRenderJob(const RenderCommand& command) {
  RenderJob job;
  job.lens = command.lens;
  job.settings = ParseLensOptions(command.lens);
  job.threads = ParseInt("--threads", command.threads, 0, kMaxThreads);
  if (!command.window.empty()) {
    job.window = ParseRect("--window", command.window);
    if (IsEmptyRect(&*job.window)) throw UsageError("--window: " + command.window + " is empty");
  }
  if (command.fit && job.settings.mode != kModeRemove) {
    throw UsageError("--fit chooses the undistorted size of a remove; apply takes it from the "
                     "input (its data window when that holds overscan)");
  }
  if (command.fit && job.settings.undistortedSize) {
    throw UsageError("--fit and --undistorted-size both choose the undistorted size; give one");
  }
  if (command.desqueeze && job.settings.mode != kModeRemove) {
    throw UsageError("--desqueeze resamples a remove's result to square pixels; to apply a "
                     "lens to a square-pixel image, squeeze it to the plate's pixel aspect first "
                     "(oiiotool --resize)");
  }
  job.fit = command.fit;
  job.desqueeze = command.desqueeze;
  job.alpha = command.alpha;
  job.channelFilters = ParseChannelFilters(command.channelFilters);
  job.addAlpha = command.addAlpha;
  job.output = OutputChoice{command.dataType, command.compression};
  job.verbose = command.verbose;
  job.quiet = command.quiet;
  return job;
}

}  // namespace

int RunRender(const RenderCommand& command, const std::string& plugin, std::ostream& out,
              std::ostream& err) {
  // The options first (nothing touched yet), then the frames on disk, then the effect.
  RenderJob job = MakeRenderJob(command);
  const ProgressStyle style =
      command.progress.empty()
          ? (command.quiet ? ProgressStyle::kNone
                           : ParseProgressStyle("auto", isatty(STDERR_FILENO) != 0))
          : ParseProgressStyle(command.progress, isatty(STDERR_FILENO) != 0);
  const FrameSelection selection = SelectFrames(command.input, command.output, command.frames);
  job.module = LoadEffect(ResolvePluginPath(plugin));
  Notes notes(err, command.quiet);
  Progress progress(style, static_cast<int>(selection.frames.size()), !selection.numbered, out,
                    err);
  return RenderSelection(job, selection, SequenceOptions{command.keepGoing, command.skipExisting},
                         progress, notes, out, err);
}

CommandEntry AddRenderCommand(CLI::App& app) {
  auto command = std::make_shared<RenderCommand>();
  RenderCommand& render = *command;
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

  return CommandEntry{renderApp, [command, renderApp](const CommandContext& context) {
                        ApplyLensFile(renderApp, &command->lens);
                        return RunRender(*command, context.plugin, context.out, context.err);
                      }};
}

}  // namespace veltrisca
