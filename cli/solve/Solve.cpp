#include "Solve.h"

#include <CLI/CLI.hpp>

#include <cmath>
#include <fstream>

#include "Lines.h"
#include "Photos.h"
#include "PlumbLine.h"
#include "Report.h"
#include "cli/shared/AtomicFile.h"
#include "cli/shared/Errors.h"
#include "cli/lens/LensFile.h"
#include "cli/lens/LensOptions.h"
#include "common/EffectParams.h"

namespace veltrisca::solve {

CommandEntry AddSolveCommand(CLI::App& tool) {
  auto command = std::make_shared<SolveCommand>();
  SolveCommand& c = *command;
  CLI::App* app = tool.add_subcommand(
      "solve", "Find the lens (distortion, cubic, quartic) that straightens a chessboard's "
               "rows and columns in photos, or lines picked on a plate, and write it as a lens "
               "file");
  app->add_option("PHOTO", c.photos,
                  "photos of the board, one frame size for all; frame patterns as render takes "
                  "them (grid.####.exr)");
  app->add_option("--board", c.board,
                  "the chessboard's INNER corners, where four squares meet: 9x6 for a board of "
                  "10 x 7 squares (OpenCV's convention; chart --board writes one); or "
                  "charuco:SQUARESxSQUARES[:DICT], a ChArUco board by its squares")
      ->type_name("COLSxROWS");
  app->add_option("-o,--output", c.output, "the lens file to write (Remove, both sizes the frame)")
      ->type_name("LENS.json");
  app->add_option("--report", c.reportDir,
                  "write pictures into DIR: each photo undistorted with its corners, fitted lines "
                  "and magnified residuals, and radial.png, the lens curve")
      ->type_name("DIR");
  app->add_option("--terms", c.terms,
                  "the coefficients to fit: distortion[,cubic][,quartic] (default: those the "
                  "data supports)")
      ->type_name("LIST");
  app->add_option("--lines", c.lines,
                  "edges straight in the world, picked on the plate: JSON or CSV (docs/solve.md)")
      ->type_name("FILE");
  app->add_option("--size", c.size, "the frame of --lines when no photo or the file gives it")
      ->type_name("WxH");
  app->add_option("--frames", c.frames, "frames of a PHOTO pattern: 1001-1100, 1001,1010...")
      ->type_name("LIST");
  AddVerbosity(app, &c.verbose, &c.quiet, "list the pictures written");
  app->footer("Nothing is written when the lens cannot be found (exit 2): no board in any photo, "
              "photos of\ndifferent frames, fewer than two lines of three points, or a lens "
              "that folds inside the frame\nor leaves the sliders' range.");
  return CommandEntry{app, [command](const CommandContext& context) {
                        return RunSolve(*command, context.out, context.err);
                      }};
}

namespace {

bool SameFrame(const SolveFrame& a, const SolveFrame& b) {
  return a.width == b.width && a.height == b.height &&
         std::fabs(a.pixelAspect - b.pixelAspect) < 1e-6;
}

std::string FrameText(const SolveFrame& f) {
  std::string text = std::to_string(f.width) + "x" + std::to_string(f.height);
  if (f.pixelAspect != 1) text += " (pixel aspect " + std::to_string(f.pixelAspect) + ")";
  return text;
}

// The slider values as the lens file holds them: 4 decimals of the x1000 value.
double SliderRounded(double k) { return std::round(k * 1e7) / 1e7; }

}  // namespace

int RunSolve(const SolveCommand& c, std::ostream& out, std::ostream& err) {
  if (c.photos.empty() && c.lines.empty()) {
    throw UsageError("solve needs photos of a board (PHOTO... --board COLSxROWS) or --lines");
  }
  Board board;
  if (!c.photos.empty()) {
    if (c.board.empty()) {
      throw UsageError("--board COLSxROWS is needed with photos: the board's inner corners "
                       "(9x6 for a board of 10 x 7 squares)");
    }
    board = ParseBoard(c.board);
  } else if (!c.board.empty()) {
    ParseBoard(c.board);
  }
  const std::optional<Terms> terms =
      c.terms.empty() ? std::nullopt : std::optional<Terms>(ParseTerms(c.terms));
  std::optional<ImageSize> size;
  if (!c.size.empty()) size = ParseSize("--size", c.size);

  Solution s;
  std::vector<Photo> photos;
  const std::vector<std::string> files = ExpandPhotos(c.photos, c.frames);
  // Never write over an input: the lens file, or a picture of the report.
  std::vector<std::string> inputs = files;
  if (!c.lines.empty()) inputs.push_back(c.lines);
  std::vector<std::string> outputs = PicturePaths(c.reportDir, files);
  if (!c.output.empty()) outputs.push_back(c.output);
  for (const std::string& output : outputs) {
    for (const std::string& input : inputs) {
      if (SameFile(output, input)) {
        throw UsageError(output + " is an input too; write the lens and the pictures elsewhere");
      }
    }
  }
  const std::string count = std::to_string(board.cols) + "x" + std::to_string(board.rows);
  const std::string boardText =
      board.charuco ? c.board + " (" + count + " inner corners)" : count + " inner corners";
  if (!files.empty()) s.board = boardText;
  int found = 0;
  // One photo at a time: its corners are kept, its pixels only for the report's pictures (a
  // filmed grid may have hundreds of frames).
  for (const std::string& file : files) {
    photos.push_back(ReadPhoto(file));
    Photo& photo = photos.back();
    if (photos.size() == 1) {
      s.frame = photo.frame;
    } else if (!SameFrame(photo.frame, s.frame)) {
      throw IoError(file + ": its frame " + FrameText(photo.frame) + " differs from " +
                    FrameText(s.frame) + " of " + photos.front().path +
                    "; one lens fits one frame");
    }
    SourceResult src;
    src.path = photo.path;
    const std::vector<Point> corners = FindBoard(photo.grey, board);
    if (c.reportDir.empty()) photo.grey.release();
    src.corners = CornersFound(corners);
    const int index = static_cast<int>(photos.size() - 1);
    const std::vector<WorldLine> lines = BoardLines(corners, board, index);
    if (lines.empty()) {
      src.problem = "no board of " + boardText + " found";
    } else {
      ++found;
    }
    src.lines = static_cast<int>(lines.size());
    s.lines.insert(s.lines.end(), lines.begin(), lines.end());
    s.sources.push_back(src);
  }

  if (!c.lines.empty()) {
    const int source = static_cast<int>(s.sources.size());
    const LinesFile file = ReadLines(c.lines, source);
    if (!photos.empty()) {
      if (file.frame && !SameFrame(*file.frame, s.frame)) {
        throw IoError(c.lines + ": its frame " + FrameText(*file.frame) + " differs from the "
                      "photos' " + FrameText(s.frame));
      }
      if (size && (size->width != s.frame.width || size->height != s.frame.height)) {
        throw UsageError("--size " + c.size + " differs from the photos' frame " +
                         FrameText(s.frame));
      }
    } else if (file.frame) {
      s.frame = *file.frame;
    } else if (size) {
      s.frame = SolveFrame{size->width, size->height, 1.0};
    } else {
      throw UsageError(c.lines + " gives no frame: add \"frame\": [W, H] to it, or --size WxH, "
                       "or photos");
    }
    SourceResult src;
    src.path = c.lines;
    for (const WorldLine& line : file.lines) {
      if (line.points.size() < 3) continue;
      s.lines.push_back(line);
      ++src.lines;
    }
    if (src.lines == 0) src.problem = "no line of three points or more";
    s.sources.push_back(src);
  }

  if (!photos.empty() && found == 0 && c.lines.empty()) {
    throw IoError("no board of " + boardText + " found in any photo" +
                  (board.charuco ? std::string()
                                 : " (is the count of inner corners right? 9x6 for a board of "
                                   "10 x 7 squares)"));
  }
  if (s.lines.size() < 2) {
    throw IoError("fewer than two lines of three points or more: nothing to fit");
  }
  for (const SourceResult& src : s.sources) {
    if (!src.problem.empty() && !c.quiet) {
      err << "veltrisca: note: " << src.path << ": " << src.problem << "; the others are used\n";
    }
  }

  if (terms) {
    s.terms = *terms;
    s.lens = FitLens(s.frame, s.lines, s.terms, false);
  } else {
    TermChoice choice = ChooseTerms(s.frame, s.lines);
    s.terms = choice.terms;
    s.lens = choice.lens;
    s.considered = choice.considered;
    s.termsChosen = true;
  }
  s.lens.k2 = SliderRounded(s.lens.k2);
  s.lens.k3 = SliderRounded(s.lens.k3);
  s.lens.k4 = SliderRounded(s.lens.k4);
  if (const std::string problem = LensProblem(s.frame, s.lens); !problem.empty()) {
    throw IoError("the fitted lens (" + s.terms.Text() + ") cannot be written: " + problem +
                  (terms ? "; try fewer --terms" : ""));
  }
  s.freeCentre = FitLens(s.frame, s.lines, s.terms, true);
  const RadialLens none = CentredLens(s.frame);
  s.before = Measure(s.frame, none, s.lines);
  s.after = Measure(s.frame, s.lens, s.lines);
  s.afterFreeCentre = Measure(s.frame, s.freeCentre, s.lines);
  for (size_t i = 0; i < s.sources.size(); ++i) {
    s.sources[i].before = Measure(s.frame, none, s.lines, static_cast<int>(i));
    s.sources[i].after = Measure(s.frame, s.lens, s.lines, static_cast<int>(i));
  }
  s.coverage = Coverage(s.frame, s.lines);

  const std::string report = ReportText(s);
  if (!c.quiet) {
    for (const std::string& w : Warnings(s)) err << "veltrisca: " << w << "\n";
  }
  std::vector<std::string> written;
  if (!c.reportDir.empty()) written = WritePictures(c.reportDir, s, photos);
  if (!c.output.empty()) {
    LensSettings settings;
    settings.mode = kModeRemove;
    settings.distortion = s.lens.k2 * 1000;
    settings.cubic = s.lens.k3 * 1000;
    settings.quartic = s.lens.k4 * 1000;
    settings.zoom = 1;
    settings.pixelAspect = s.frame.pixelAspect;
    settings.distortedSize = ImageSize{s.frame.width, s.frame.height};
    settings.undistortedSize = settings.distortedSize;
    TempOutputFile temp(c.output);
    {
      std::ofstream file(temp.path(), std::ios::binary | std::ios::trunc);
      file << LensFileText(settings, "veltrisca solve\n" + report);
      file.flush();
      if (!file) throw IoError(c.output + ": cannot write the lens file");
    }
    temp.Commit();
    written.push_back(c.output);
  }
  if (!c.quiet) {
    out << report;
    if (c.verbose) {
      for (const std::string& path : written) out << "wrote " << path << "\n";
    }
  }
  return kExitOk;
}

}  // namespace veltrisca::solve
