#include "cli/shared/Command.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace veltrisca {

std::string ElapsedText(std::chrono::steady_clock::time_point started) {
  char time[32];
  std::snprintf(time, sizeof time, "%.2f s",
                std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count());
  return time;
}

void AddVerbosity(CLI::App* sub, bool* verbose, bool* quiet, const std::string& verboseHelp) {
  sub->add_flag("-v,--verbose", *verbose, verboseHelp);
  sub->add_flag("-q,--quiet", *quiet, "print nothing but errors");
}

}  // namespace veltrisca
