// The tool's commands and the command line that selects them.
#ifndef VT_CLI_COMMANDLINE_H
#define VT_CLI_COMMANDLINE_H

#include <ostream>
#include <string>
#include <vector>

#include "cli/lens/LensOptions.h"

namespace veltrisca {

struct InfoCommand {
  LensOptionText lens;
  std::string image;  // empty: a layer of --size
  std::string size = "1920x1080";
  std::string request;  // empty: the whole layer
  bool json = false;
  bool table = false;
  bool verbose = false;  // -v
  bool quiet = false;    // -q
};

struct RenderCommand {
  LensOptionText lens;
  std::string input;
  std::string output;
  std::string threads = "0";
  std::string window;  // empty: the default window of the mode
  std::string alpha;   // channel name, "none", or empty: the file's own alpha
  std::vector<std::string> channelFilters;  // --channel-filter PATTERN=FILTER, in order
  bool addAlpha = false;
  std::string dataType;     // -d
  std::string compression;  // --compression
  bool fit = false;         // remove: the smallest undistorted size holding the plate
  bool desqueeze = false;   // remove: an anamorphic result resampled to square pixels
  bool verbose = false;     // -v
  bool quiet = false;       // -q
  std::string frames;       // --frames LIST
  bool keepGoing = false;   // --keep-going
  bool skipExisting = false;  // --skip-existing
  std::string progress;     // --progress STYLE; empty: auto, none with -q
};

struct ChartCommand {
  std::string output;
  std::string size = "1920x1080";
  std::string depth;  // empty: from the extension
  bool verbose = false;  // -v
  bool quiet = false;    // -q
};

// Each returns the exit code; failures are thrown as CliError. `note` receives remarks and
// warnings for stderr that do not stop the command; `out` the -v report.
int RunInfo(const InfoCommand& command, const std::string& plugin, std::ostream& out);
int RunRender(const RenderCommand& command, const std::string& plugin, std::ostream& out,
              std::ostream& note);
int RunChart(const ChartCommand& command);

// Parses the command line (args without the program name) and runs the command; prints
// errors as one line on `err` and returns the exit code.
int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace veltrisca

#endif
