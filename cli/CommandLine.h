// The command line: the commands' rooms register their options and runners (CommandEntry,
// cli/shared/Command.h); RunCli checks the words, parses them and runs the chosen command.
#ifndef VT_CLI_COMMANDLINE_H
#define VT_CLI_COMMANDLINE_H

#include <ostream>
#include <string>
#include <vector>

namespace veltrisca {

// Parses the command line (args without the program name) and runs the command; prints
// errors as one line on `err` and returns the exit code.
int RunCli(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace veltrisca

#endif
