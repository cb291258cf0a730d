#include "cli/shared/Command.h"

#include <CLI/CLI.hpp>

namespace veltrisca {

void AddVerbosity(CLI::App* sub, bool* verbose, bool* quiet, const std::string& verboseHelp) {
  sub->add_flag("-v,--verbose", *verbose, verboseHelp);
  sub->add_flag("-q,--quiet", *quiet, "print nothing but errors");
}

}  // namespace veltrisca
