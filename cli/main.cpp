// veltrisca: the command-line front end of the Veltrisca Distortion effect.
#include <csignal>
#include <iostream>
#include <string>
#include <vector>

#include "Commands.h"

int main(int argc, char** argv) {
  // Past a file size limit a write fails with EFBIG instead of killing the process, so the
  // tool can say so and remove its temporary file.
  std::signal(SIGXFSZ, SIG_IGN);
  const std::vector<std::string> args(argv + 1, argv + argc);
  return veltrisca::RunCli(args, std::cout, std::cerr);
}
