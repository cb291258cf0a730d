// `veltrisca solve`: the effect's lens from photos of a chessboard, or from lines picked on a
// plate, by the plumb-line criterion (cli/solve/PlumbLine.h); the report and pictures
// (cli/solve/Report.h); the result as a lens file (cli/lens/LensFile.h).
#ifndef VT_CLI_SOLVE_SOLVE_H
#define VT_CLI_SOLVE_SOLVE_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/shared/Command.h"

namespace veltrisca::solve {

struct SolveCommand {
  std::vector<std::string> photos;
  std::string board;      // --board COLSxROWS
  std::string output;     // -o LENS.json; empty: no file
  std::string reportDir;  // --report DIR
  std::string terms;      // --terms; empty: chosen by the data
  std::string lines;      // --lines LINES.json|.csv
  std::string size;       // --size WxH: the frame of lines without photos or frame
  std::string frames;     // --frames LIST
  bool verbose = false, quiet = false;
};

// Registers the command and its options (cli/shared/Command.h).
CommandEntry AddSolveCommand(CLI::App& tool);

// Runs it: the report on `out` (nothing with -q), notes and warnings on `err`. Throws
// CliError; nothing is written unless the lens is.
int RunSolve(const SolveCommand& command, std::ostream& out, std::ostream& err);

}  // namespace veltrisca::solve

#endif
