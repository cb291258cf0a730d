#include "cli/info/InfoCommand.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>

#include "cli/image/ImageGeometry.h"
#include "cli/image/ImageIO.h"
#include "cli/info/InfoReport.h"
#include "cli/lens/Fit.h"
#include "cli/lens/LensFile.h"
#include "cli/session/EffectSession.h"
#include "cli/shared/Errors.h"
#include "cli/shared/Memory.h"

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
  CheckMemory(WorldBytes(pixels, Depth::k8), "a " + std::to_string(layer.width) + "x" +
                                                 std::to_string(layer.height) + " input layer");

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

CommandEntry AddInfoCommand(CLI::App& app) {
  auto command = std::make_shared<InfoCommand>();
  InfoCommand& info = *command;
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

  return CommandEntry{infoApp, [command, infoApp](const CommandContext& context) {
                        ApplyLensFile(infoApp, &command->lens);
                        return RunInfo(*command, context.plugin, context.out);
                      }};
}

}  // namespace veltrisca
