// How a command joins the tool. Each command's room has one function, Add<Name>Command, that
// registers the subcommand with its options on the command line and returns the runner that
// runs it when the user chose it; cli/CommandLine.cpp lists those functions in the order
// `veltrisca --help` shows them. A runner returns the exit code and throws CliError
// (cli/shared/Errors.h) for a failure.
#ifndef VT_CLI_SHARED_COMMAND_H
#define VT_CLI_SHARED_COMMAND_H

#include <chrono>
#include <functional>
#include <ostream>
#include <string>

namespace CLI {
class App;
}

namespace veltrisca {

// What every command may use: the --plugin option, the two streams and the start time.
struct CommandContext {
  std::string plugin;  // --plugin; empty: $VELTRISCA_PLUGIN, else the built one
  std::ostream& out;   // the -v report, the command's own output
  std::ostream& err;   // notes and warnings that do not stop the command
  std::chrono::steady_clock::time_point started;
};

struct CommandEntry {
  CLI::App* app;  // the subcommand; it was chosen when it counts as parsed
  std::function<int(const CommandContext&)> run;
};

// "0.42 s": the time since `started`, for -v.
std::string ElapsedText(std::chrono::steady_clock::time_point started);

// -v and -q: every command takes both.
void AddVerbosity(CLI::App* sub, bool* verbose, bool* quiet, const std::string& verboseHelp);

}  // namespace veltrisca

#endif
