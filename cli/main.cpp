// veltrisca: the command-line front end of the Veltrisca Distortion effect.
#include <iostream>
#include <string>
#include <vector>

#include "cli/CommandLine.h"
#include "cli/shared/Signals.h"

int main(int argc, char** argv) {
  veltrisca::InstallSignalHandlers();
  const std::vector<std::string> args(argv + 1, argv + argc);
  return veltrisca::RunCli(args, std::cout, std::cerr);
}
