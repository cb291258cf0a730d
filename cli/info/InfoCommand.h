// `veltrisca info`: runs the effect's setup and one smart pre-render and prints what it computed.
#ifndef VT_CLI_INFO_INFOCOMMAND_H
#define VT_CLI_INFO_INFOCOMMAND_H

#include <ostream>
#include <string>

#include "cli/lens/LensOptions.h"
#include "cli/shared/Command.h"

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

int RunInfo(const InfoCommand& command, const std::string& plugin, std::ostream& out);

CommandEntry AddInfoCommand(CLI::App& app);

}  // namespace veltrisca

#endif
